#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <gtest/gtest.h>

namespace parlune::test {

// Writes `bytes` to `path` in place of whatever it held, making its folder first.
inline void writeFile(const QString& path, const QByteArray& bytes) {
    ASSERT_TRUE(QDir().mkpath(QFileInfo(path).path())) << path.toStdString();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    ASSERT_EQ(file.write(bytes), bytes.size()) << path.toStdString();
}

// The file's bytes; "<unreadable>" where there is no file to read.
inline QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArrayLiteral("<unreadable>");
}

} // namespace parlune::test
