// How much a log() call costs its caller: 4 threads x 25,000 calls, then every line is counted.
#include "app/log/AppLogger.h"

#include <QFile>
#include <QTemporaryDir>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

int main()
{
    constexpr int threads = 4;
    constexpr int perThread = 25'000;
    QTemporaryDir dir;
    const QString path = dir.path() + QStringLiteral("/menu-app.log");
    AppLogger logger(path);

    std::vector<double> nanosPerCall(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const QString message = QStringLiteral("State updated: Status: Running version=1.4.2 running=true");
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < perThread; ++i)
                logger.log(message);
            const auto elapsed = std::chrono::steady_clock::now() - start;
            nanosPerCall[t] = std::chrono::duration<double, std::nano>(elapsed).count() / perThread;
        });
    }
    for (auto &worker : workers)
        worker.join();
    const auto drainStart = std::chrono::steady_clock::now();
    logger.flush();
    const double drainMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - drainStart).count();

    QFile file(path);
    file.open(QIODevice::ReadOnly);
    const qsizetype lines = file.readAll().count('\n');
    double worst = 0, sum = 0;
    for (double value : nanosPerCall) {
        worst = std::max(worst, value);
        sum += value;
    }
    std::printf("log(): mean %.2f us/call, worst thread %.2f us/call; writer drained the rest in %.1f ms\n",
                sum / threads / 1000.0, worst / 1000.0, drainMs);
    std::printf("lines in file: %lld of %d (%s)\n", static_cast<long long>(lines), threads * perThread,
                lines == threads * perThread ? "none lost" : "LINES LOST");
    return lines == threads * perThread ? 0 : 1;
}
