#include "core/platform/Pasteboard.h"

namespace parlune {

QCoro::Task<std::vector<QString>> Pasteboard::typesAsync(int index) {
    co_return types(index);
}

QCoro::Task<std::optional<QByteArray>> Pasteboard::dataAsync(int index, QString type) {
    co_return data(index, type);
}

QCoro::Task<std::optional<QString>> Pasteboard::stringAsync() {
    co_return string();
}

} // namespace parlune
