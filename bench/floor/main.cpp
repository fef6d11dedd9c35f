// Starts a QCoreApplication and exits: what every Qt tool pays before its
// own work (loading QtCore and its libraries, relocation, application set-up
// and teardown).
#include <QCoreApplication>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    return 0;
}
