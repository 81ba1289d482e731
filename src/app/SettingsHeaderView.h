#pragma once

#include <QWidget>

class QLabel;

namespace parlune::app {

// Logo, product name, tagline, the READY / SETUP pill and the version text.
class SettingsHeaderView : public QWidget {
public:
    SettingsHeaderView(const QString& versionText, QWidget* parent = nullptr);
    void setReady(bool ready);
    QString pillText() const;

private:
    QLabel* pill_;
};

} // namespace parlune::app
