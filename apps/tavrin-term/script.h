// The scripted part of a session: the steps given on the command line, the matching of expected
// bytes against what the device sent, and the session's statistics.
#pragma once

#include "text.h"

#include <tavrin/util/systemtime.h>

#include <vector>

namespace term {

// One step of -send, -hex, -file, -expect, -expect-hex, -wait, in command-line order.
struct Step
{
    enum EKind
    {
        Send,   // the bytes go to the device
        Expect, // the bytes must arrive within timeoutMs
        Wait    // shows what arrives for timeoutMs
    };

    EKind eKind = Send;
    Bytes bytes;             // what is sent or expected
    unsigned int nTimeoutMs = 0;
    ustring strSource;       // the step as the user wrote it, for messages ("-expect OK")
};

// Received bytes not yet consumed by an expectation. Expectations take their match from the
// front: every byte up to the end of a match is consumed, so consecutive expectations match
// consecutive replies, and a reply that came before its expectation started still counts.
class CReceiveBuffer
{
public:
    // At most this many unmatched bytes are kept; older ones are dropped (the tail that could
    // still begin a match is always kept).
    explicit CReceiveBuffer(size_t limit = 1u << 20);

    void Append(const unsigned char* data, size_t size);
    // Whether `pattern` is in the buffer; on success everything up to its end is consumed.
    // An empty pattern matches at once.
    bool Consume(const Bytes& pattern);
    size_t Size() const { return m_Data.size(); }
    const Bytes& Data() const { return m_Data; }
    void Clear() { m_Data.clear(); }

private:
    size_t m_nLimit;
    Bytes m_Data;
};

// Counts of one direction.
struct DirectionStats
{
    unsigned __int64 nBytes = 0;
    unsigned __int64 nRecords = 0; // completed transfers, as the data log records them
};

// What the closing summary reports.
class CSessionStats
{
public:
    DirectionStats sent;
    DirectionStats received;
    unsigned int nExpectationsMet = 0;
    unsigned int nExpectationsFailed = 0;
    unsigned int nErrors = 0;       // transport failures and expectations not met
    unsigned int nConnections = 0;  // connections made (a reconnect adds one)
    unsigned int nAttempts = 0;     // connection attempts, failed ones included

    void AddRoundTrip(__int64 milliseconds) { m_RoundTrips.push_back(milliseconds); }
    const std::vector<__int64>& RoundTrips() const { return m_RoundTrips; }
    // Minimum, median (the mean of the two middle values for an even count) and maximum; false
    // when there are none.
    bool RoundTripFigures(__int64& minimum, double& median, __int64& maximum) const;

private:
    std::vector<__int64> m_RoundTrips;
};

// A duration in milliseconds for tables: "12 ms", "1,234 ms" (grouped in the user's locale).
ustring FormatMilliseconds(__int64 milliseconds);
ustring FormatMilliseconds(double milliseconds);

} // namespace term
