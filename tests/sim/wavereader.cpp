#include "tests/sim/wavereader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>
#include <vector>

namespace kest::sim::test
{

namespace
{

/// A line that moves.
struct Edge {
    long tick;
    bool isClock;
    bool level;
};

/// All edges behind tick 0, which has the levels of the begin: both lines are released there.
std::vector<Edge> edgesOf(const std::string& vcd)
{
    std::vector<Edge> edges;
    std::istringstream lines{vcd};
    std::string line;
    long tick = -1;
    while (std::getline(lines, line)) {
        if (line[0] == '#') {
            tick = std::stol(line.substr(1));
        } else if (tick > 0 && line.size() == 2) {
            edges.push_back({tick, line[1] == '!', line[0] == '1'});
        }
    }
    return edges;
}

class Meter
{
public:
    void take(const Edge& edge)
    {
        if (edge.isClock) {
            clockEdge(edge.tick, edge.level);
        } else {
            dataEdge(edge.tick, edge.level);
        }
    }
    [[nodiscard]] const Timing& result() const { return m_result; }

private:
    static void note(long& shortest, long now, long since)
    {
        if (since >= 0) {
            shortest = std::min(shortest, now - since);
        }
    }
    void clockEdge(long now, bool level)
    {
        if (level) {
            note(m_result.low, now, m_clockFell);
            m_result.longestLow = std::max(m_result.longestLow, m_clockFell < 0 ? 0 : now - m_clockFell);
            note(m_result.setUpData, now, m_dataMoved);
            m_clockRose = now;
        } else {
            note(m_result.high, now, m_clockRose);
            note(m_result.holdStart, now, m_started);
            m_clockFell = now;
        }
        m_clock = level;
        m_dataMoved = m_started = -1;
        m_stopped = level ? m_stopped : -1;
    }
    void dataEdge(long now, bool level)
    {
        if (!m_clock) {
            note(m_result.holdData, now, m_clockFell);
            m_dataMoved = now;
        } else if (level) {
            note(m_result.setUpStop, now, m_clockRose);
            m_stopped = now;
            m_started = -1;
        } else {
            note(m_result.busFree, now, m_stopped);
            note(m_result.setUpStart, now, m_clockRose);
            m_started = now;
        }
    }

    Timing m_result;
    bool m_clock = true;
    // ticks, -1 when it has not been
    long m_clockRose = -1, m_clockFell = -1; ///< the latest
    long m_dataMoved = -1; ///< while SCL is low now
    long m_started = -1; ///< the START whose hold time runs
    long m_stopped = -1; ///< the STOP since which the bus is free
};

class Decoder
{
public:
    void take(const Edge& edge)
    {
        if (!edge.isClock) {
            m_data = edge.level;
            if (m_clock && edge.level && m_busTaken) {
                stop();
            } else if (m_clock && !edge.level) {
                start();
            }
            return;
        }
        m_clock = edge.level;
        // a bit is taken as SCL rises; that of a START or a STOP is forgotten with it
        if (edge.level && m_busTaken) {
            bit();
        }
    }
    [[nodiscard]] const std::string& result() const { return m_text; }

private:
    void add(const std::string& token) { m_text += (m_text.empty() ? "" : " ") + token; }
    void start()
    {
        add(m_busTaken ? "Sr" : "S");
        m_busTaken = m_isAddress = true;
        m_bits = m_byte = 0;
    }
    void stop()
    {
        add("P");
        m_busTaken = false;
    }
    void bit()
    {
        if (m_bits == 8) {
            add(m_data ? "N" : "A");
            m_bits = m_byte = 0;
            return;
        }
        m_byte = m_byte << 1U | (m_data ? 1U : 0U);
        if (++m_bits == 8) {
            const char* const way = (m_byte & 1U) != 0 ? "R" : "W";
            add(m_isAddress ? way + hexOf(m_byte >> 1U) : hexOf(m_byte));
            m_isAddress = false;
        }
    }

    std::string m_text;
    bool m_clock = true, m_data = true;
    bool m_busTaken = false, m_isAddress = false;
    unsigned m_bits = 0, m_byte = 0; ///< of the byte under way
};

template <typename Reader>
auto read(const std::string& vcd)
{
    Reader reader;
    for (const Edge& edge : edgesOf(vcd)) {
        reader.take(edge);
    }
    return reader.result();
}

} // namespace

std::string hexOf(unsigned byte)
{
    std::array<char, 3> text{};
    std::snprintf(text.data(), text.size(), "%02X", byte & 0xFFU);
    return text.data();
}

Timing timesIn(const std::string& vcd) { return read<Meter>(vcd); }

std::string bytesIn(const std::string& vcd) { return read<Decoder>(vcd); }

} // namespace kest::sim::test
