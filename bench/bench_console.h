// main() of the benchmark programs that run daemon code: the daemon's log
// lines (standard output, line-buffered as in the daemon) go to /dev/null and
// the results to the console the program was started with, so the figures
// are not mixed with log lines and still include the cost of writing them.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "common/log.h"

#define CAMGATE_BENCHMARK_MAIN()                                                                          \
    int main(int argc, char **argv)                                                                       \
    {                                                                                                     \
        const int console = dup(STDOUT_FILENO);                                                           \
        std::ofstream results("/proc/self/fd/" + std::to_string(console));                                \
        if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;                                  \
        log_init_line_buffering();                                                                        \
        benchmark::Initialize(&argc, argv);                                                               \
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;                                 \
        benchmark::ConsoleReporter reporter(isatty(console) ? benchmark::ConsoleReporter::OO_ColorTabular \
                                                            : benchmark::ConsoleReporter::OO_Tabular);    \
        reporter.SetOutputStream(&results);                                                               \
        reporter.SetErrorStream(&results);                                                                \
        benchmark::RunSpecifiedBenchmarks(&reporter);                                                     \
        benchmark::Shutdown();                                                                            \
        return 0;                                                                                         \
    }                                                                                                     \
    static_assert(true, "")
