#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <sys/types.h>

namespace parlune {
class Workspace;
}

namespace parlune::test {

// A tiny random-weight model our writer makes, which the whole rewrite path accepts (untied: a
// tied random model answers with blanks).
void writeTinyModel(const QString& path);

// One running `parlune` on the test desktop, with its own settings and data folders under `home`
// and a model file (a tiny one made by our writer unless another is given).
class ParluneProcess {
public:
    struct Options {
        QString binary;
        QString model;                            // empty: a tiny random-weight model written into `home`
        bool noModel = false;                     // start with no model at all
        QStringList wrapper;                      // a command the binary runs under (strace, say)
        QString platform = QStringLiteral("xcb"); // Qt's platform: xcb, or wayland on a compositor
    };

    ParluneProcess(const QTemporaryDir& home, Options options);
    ~ParluneProcess() { stop(); }
    ParluneProcess(const ParluneProcess&) = delete;
    ParluneProcess& operator=(const ParluneProcess&) = delete;

    static bool isOnTheBus();

    // Starts it and waits until it answers on the session bus.
    bool start();
    // The settings window opens by itself until the model is ready and the workflow test passed;
    // callers wait until it is in front before they give the focus back to their editor.
    bool waitForSettingsWindow(Workspace& workspace);
    // SIGTERM, as a logout sends; the milliseconds until the process was gone (-1: it had to be
    // killed), and its wait status in `status`.
    qint64 terminate(int* status = nullptr);
    void stop() { terminate(); }

    QString log() const;
    pid_t pid() const { return pid_; }
    // The program's own process, also when it runs under a wrapper.
    pid_t applicationPid() const;

private:
    const QTemporaryDir& home_;
    Options options_;
    pid_t pid_ = -1;
};

} // namespace parlune::test
