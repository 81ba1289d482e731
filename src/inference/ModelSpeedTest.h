#pragma once

#include <QCoro/QCoroTask>
#include <QString>

#include <stop_token>

namespace parlune {

// How fast one model file runs on this computer: a rewrite-sized prompt, then a fixed number of
// generated tokens, after one untimed request that loads the weights. A few seconds on a 1–3B
// model; it uses an engine of its own, so the model in use stays loaded.
class ModelSpeedTest {
public:
    struct Result {
        double promptTokensPerSecond = 0;
        double generatedTokensPerSecond = 0;
    };
    static constexpr int generatedTokens = 32;

    // Throws the engine's errors (an unusable file says why), or CancellationError.
    static QCoro::Task<Result> measure(QString path, std::stop_token token = {});
    // "Reads 250 tokens/s, writes 27 tokens/s on this computer."
    static QString describe(const Result& result);
};

} // namespace parlune
