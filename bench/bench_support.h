// Side-by-side timing for the benchmarks. The library's operation and a hand-written baseline
// doing the same work run in alternating batches within one process (which one goes first
// alternates too, so drift and warm-up hit both alike). Each round gives one ratio, library time
// over baseline time; a comparison reports the median ratio and its spread (the 10th and 90th
// percentiles of the rounds). Batches are short and each round keeps the fastest of a few, so
// that on a shared machine the time another process takes away does not count.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

inline double Now()
{
    LARGE_INTEGER frequency, counter;
    ::QueryPerformanceFrequency(&frequency);
    ::QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) / static_cast<double>(frequency.QuadPart);
}

// Defeats dead-code elimination: every measured call adds something of its result here.
inline volatile std::size_t g_sink = 0;

struct Ratio
{
    double median = 0;
    double low = 0;  // 10th percentile of the rounds
    double high = 0; // 90th percentile
    double libraryNs = 0;  // median time of one library call
    double baselineNs = 0; // median time of one baseline call
};

inline double Percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    const double at = p * static_cast<double>(values.size() - 1);
    const std::size_t below = static_cast<std::size_t>(at);
    const std::size_t above = std::min(below + 1, values.size() - 1);
    return values[below] + (values[above] - values[below]) * (at - static_cast<double>(below));
}

// Seconds for `count` calls of `f`.
template <class F>
double Time(F& f, unsigned int count)
{
    const double start = Now();
    for (unsigned int i = 0; i < count; ++i)
        f();
    return Now() - start;
}

// Calls per batch so that a library batch takes about `seconds`.
template <class F>
unsigned int Calibrate(F& f, double seconds)
{
    unsigned int count = 1;
    while (count < (1u << 24) && Time(f, count) < seconds)
        count *= 2;
    return count;
}

// Runs `rounds` rounds. A round times `kRepeats` batches of each side, alternating, and keeps
// each side's fastest batch: a batch that another process interrupted is slower, never faster.
template <class L, class B>
Ratio Compare(L library, B baseline, unsigned int rounds = 31, double batchSeconds = 0.0005)
{
    const unsigned int kRepeats = 5;
    const unsigned int count = Calibrate(library, batchSeconds);
    std::vector<double> ratios, libraryNs, baselineNs;
    for (unsigned int round = 0; round < rounds; ++round)
    {
        double l = 1e30, b = 1e30;
        for (unsigned int repeat = 0; repeat < kRepeats; ++repeat)
        {
            if ((round + repeat) % 2 == 0)
            {
                l = std::min(l, Time(library, count));
                b = std::min(b, Time(baseline, count));
            }
            else
            {
                b = std::min(b, Time(baseline, count));
                l = std::min(l, Time(library, count));
            }
        }
        ratios.push_back(l / b);
        libraryNs.push_back(l * 1e9 / count);
        baselineNs.push_back(b * 1e9 / count);
    }
    Ratio r;
    r.median = Percentile(ratios, 0.5);
    r.low = Percentile(ratios, 0.1);
    r.high = Percentile(ratios, 0.9);
    r.libraryNs = Percentile(libraryNs, 0.5);
    r.baselineNs = Percentile(baselineNs, 0.5);
    return r;
}

inline void PrintHeader(const char* title)
{
    std::printf("\n%s\n", title);
    std::printf("  %-46s %10s %10s %7s %15s %7s\n", "operation", "library", "baseline", "ratio", "spread p10-p90",
                "target");
}

// One result line; returns whether the target ratio was met. A target of 0 reports only.
inline bool Report(const char* name, const Ratio& r, double target)
{
    const bool met = target == 0 || r.median <= target;
    char goal[16] = "";
    if (target != 0)
        std::snprintf(goal, sizeof(goal), "%5.1fx", target);
    std::printf("  %-46s %8.0fns %8.0fns %6.2fx %7.2f-%-7.2f %6s %s\n", name, r.libraryNs, r.baselineNs, r.median,
                r.low, r.high, goal, target == 0 ? "" : (met ? "met" : "MISSED"));
    std::fflush(stdout);
    return met;
}

// A timed single run, for inputs whose point is that they answer at all.
template <class F>
bool ReportOnce(const char* name, F f, double limitMs)
{
    const double start = Now();
    f();
    const double ms = (Now() - start) * 1e3;
    const bool met = ms <= limitMs;
    std::printf("  %-46s %9.2fms %26s %5.0fms %s\n", name, ms, "", limitMs, met ? "met" : "MISSED");
    std::fflush(stdout);
    return met;
}

// The summary line every benchmark ends with.
inline int Finish(unsigned int missed)
{
    std::printf("\n%s\n", missed == 0 ? "All targets met." : "Some targets were missed.");
    return missed == 0 ? 0 : 1;
}

} // namespace bench
