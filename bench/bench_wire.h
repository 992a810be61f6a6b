// What the trivial kernel sends, shared with the benchmarks that read it
// without the library.
#ifndef TAMIX_BENCH_BENCH_WIRE_H
#define TAMIX_BENCH_BENCH_WIRE_H

#include <string>

namespace benchwire {

// The sizes of the large results that the benchmarks receive.
constexpr long kResultSizes[] = {10000, 100000, 1000000, 10000000};

// A result of n characters as the reference kernel lays one out: lines of
// 79 characters of expression text and a line break.
inline std::string resultBody(long n)
{
    static const char kTerm[] = "x^12*sin(y+3)-cos(2*x)/7+";
    std::string s;
    s.reserve(static_cast<size_t>(n));
    for (long i = 0; i < n; ++i)
        s += i % 80 == 79 ? '\n' : kTerm[i % 80 % (sizeof kTerm - 1)];
    return s;
}

inline std::string finishedMessage(long id, const std::string& cid)
{
    return "<finished cl=\"" + std::to_string(id) + "\" cid=\"" + cid + "\"/>";
}

// The result and the finished message of a command, as one piece.
inline std::string resultMessage(long id, const std::string& cid, const std::string& text)
{
    return "<output cl=\"" + std::to_string(id) + "\" cid=\"" + cid +
           "\" type=\"result\"><text format=\"text\">" + text + "</text></output>" +
           finishedMessage(id, cid);
}

} // namespace benchwire

#endif
