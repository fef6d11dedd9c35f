#include "client/kepclient.h"

#include <QHash>

// Runs once, from the event loop, right after start-up: picks the handler for
// the command word, runs it on the words after it, and acts on its result.
void KepClient::on_program_ready()
{
    QHash<QString, Handler> commands;
    commands.insert(QStringLiteral("help"), &KepClient::printUsage);
    commands.insert(QStringLiteral("status"), &KepClient::showStatus);
    commands.insert(QStringLiteral("off"), &KepClient::setOffMode);
    commands.insert(QStringLiteral("normal"), &KepClient::setNormalMode);
    commands.insert(QStringLiteral("softap"), &KepClient::softAp);
    commands.insert(QStringLiteral("scan"), &KepClient::scan);
    commands.insert(QStringLiteral("wps"), &KepClient::wps);
    commands.insert(QStringLiteral("add"), &KepClient::addNetworks);
    commands.insert(QStringLiteral("wiredip"), &KepClient::wiredIp);
    commands.insert(QStringLiteral("wirelessip"), &KepClient::wirelessIp);
    commands.insert(QStringLiteral("loglevel"), &KepClient::logLevel);

    // No command word runs "status". An empty argument vector (no program
    // path either) is taken the same way.
    Handler handler = &KepClient::showStatus;
    if (m_arguments.size() > 1)
        handler = commands.value(m_arguments.at(1), &KepClient::printUsage);

    switch ((this->*handler)(m_arguments.mid(2))) {
    case Done:
        endRun();
        break;
    case BadArguments:
        printUsage({});
        endRun();
        break;
    default:
        break; // waiting for the service; a slot ends the run
    }
}
