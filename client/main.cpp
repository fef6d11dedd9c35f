#include "client/kepclient.h"

#include <QCoreApplication>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    KepClient client(QCoreApplication::arguments());
    app.exec();
    // Whatever happened, the outcome is in the printed text, not the status.
    return 0;
}
