#include "sim/wave.h"

namespace kest::sim
{

namespace
{
// SCL, SDA
constexpr char signs[2] = {'!', '"'};

std::string value(bool level, int line) { return std::string{level ? '1' : '0'} + signs[line] + '\n'; }
} // namespace

std::string waveText::header(const std::string& bus, bool scl, bool sda)
{
    return "$comment IIC bus " + bus +
           " $end\n$timescale 100 ns $end\n$scope module i2c $end\n$var wire 1 ! SCL $end\n" +
           "$var wire 1 \" SDA $end\n$upscope $end\n$enddefinitions $end\n#0\n" + value(scl, 0) + value(sda, 1);
}

void waveText::stamp(std::uint64_t now)
{
    const std::uint64_t tick = (now - m_originNs) / tickNs;
    if (tick != m_lastTick) {
        m_text += '#' + std::to_string(tick) + '\n';
        m_lastTick = tick;
    }
}

void waveText::change(std::uint64_t now, int line, bool level)
{
    if (m_levels[line] == level) {
        return;
    }
    stamp(now);
    m_text += value(level, line);
    m_levels[line] = level;
}

std::string waveText::tail(std::uint64_t now) const
{
    return '#' + std::to_string((now - m_originNs) / tickNs + 1) + '\n';
}

} // namespace kest::sim
