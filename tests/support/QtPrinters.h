#pragma once

#include <QString>
#include <QStringView>

#include <ostream>

// Lets GoogleTest show Qt strings as text in failure messages.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(QStringView text, std::ostream* out) {
    *out << '"' << text.toString().toStdString() << '"';
}
