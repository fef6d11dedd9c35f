#ifndef KEPCLIENT_H
#define KEPCLIENT_H

#include <QObject>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

class com_calyra_kep;

// The one client object of a run. It holds the command line and the service
// proxy; everything after construction arrives through one of its slots.
class KepClient : public QObject
{
    Q_OBJECT

public:
    explicit KepClient(QStringList arguments);

private slots:
    void on_program_ready();
    void on_kepclient_timeout();
    void on_kep_ScanResults(const QVariantMap &);
    void on_kep_WpsCredentials(const QVariantMap &);
    void on_kep_WpsError(const QString &);
    void on_kep_WpsProgress(const QVariantMap &);

private:
    // Command handlers. Each takes the words after the command word and
    // returns a result code: Done, BadArguments or Waiting.
    enum Result { Done = 0, BadArguments = 1, Waiting = 2 };
    using Handler = int (KepClient::*)(const QStringList &);

    int printUsage(const QStringList &);    // help      client/usage.cpp
    int showStatus(const QStringList &);    // status    reports/status.cpp
    int setOffMode(const QStringList &);    // off       commands/mode.cpp
    int setNormalMode(const QStringList &); // normal    commands/mode.cpp
    int softAp(const QStringList &);        // softap    commands/mode.cpp
    int scan(const QStringList &);          // scan      commands/scan.cpp
    int wps(const QStringList &);           // wps       commands/wps.cpp
    int addNetworks(const QStringList &);   // add       commands/add.cpp
    int wiredIp(const QStringList &);       // wiredip   commands/ipsettings.cpp
    int wirelessIp(const QStringList &);    // wirelessip commands/ipsettings.cpp
    int logLevel(const QStringList &);      // loglevel  commands/loglevel.cpp

    // Ends the run, once: the first call asks the event loop to quit and
    // returns true, every later one returns false. quit() does not stop the
    // signals QtDBus has already queued: they are still delivered before
    // exec() returns. So a slot that ends the run prints only when its call
    // ended it, and a slot that reports progress prints nothing once the run
    // has ended.
    bool endRun();

    void callService(const QString &method, const QVariantList &arguments = {});
    int callServiceAndFinish(const QString &method, const QVariantList &arguments = {});
    int writeIpSettings(const char *property, const QStringList &arguments);

    const QStringList m_arguments;
    com_calyra_kep *m_kep;
    bool m_runEnded = false;
};

#endif
