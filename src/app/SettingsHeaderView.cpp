#include "app/SettingsHeaderView.h"

#include "app/ParluneIcon.h"
#include "app/Style.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

namespace parlune::app {

SettingsHeaderView::SettingsHeaderView(const QString& versionText, QWidget* parent)
    : QWidget(parent), pill_(new QLabel(this)) {
    auto* name = new QLabel(QStringLiteral("PARLUNE"), this);
    name->setFont(Style::serif(34, true));
    auto* tagline = new QLabel(QStringLiteral("PRIVATE, ON-DEVICE REWRITING."), this);
    tagline->setFont(Style::system(10, QFont::Black));
    auto* version = new QLabel(versionText, this);
    version->setProperty("role", "detail");
    version->setObjectName(QStringLiteral("versionText"));
    pill_->setFont(Style::system(11, QFont::Black));
    pill_->setAlignment(Qt::AlignCenter);
    pill_->setObjectName(QStringLiteral("readinessPill"));

    auto* titles = new QVBoxLayout;
    titles->setSpacing(2);
    titles->addWidget(name);
    titles->addWidget(tagline);
    auto* trailing = new QVBoxLayout;
    trailing->addWidget(pill_, 0, Qt::AlignRight);
    trailing->addWidget(version, 0, Qt::AlignRight);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(new LogoView(56, this));
    layout->addSpacing(12);
    layout->addLayout(titles, 1);
    layout->addLayout(trailing);
    setReady(false);
}

void SettingsHeaderView::setReady(bool ready) {
    pill_->setText(ready ? QStringLiteral("READY") : QStringLiteral("SETUP"));
    const QColor fill = ready ? Palette::yellow() : Palette::coral();
    pill_->setStyleSheet(QStringLiteral("background: %1; color: %2; border: 2px solid %2; padding: 3px 10px;")
                             .arg(fill.name(), Palette::navy().name()));
    pill_->setAccessibleName(ready ? QStringLiteral("Ready") : QStringLiteral("Setup needed"));
}

QString SettingsHeaderView::pillText() const {
    return pill_->text();
}

} // namespace parlune::app
