/// What goes over a bus as a VCD file: SCL and SDA in ticks of 100 ns, 1 for a released line.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace kest::sim
{

/// Where the file of a recording ends.
struct waveEnd {
    bool scl = true, sda = true; ///< levels that it shows
    std::uint64_t tick = 0;
};

/// The lines of a bus during one transaction, as text to append to the file.
class waveText
{
public:
    static constexpr std::uint64_t tickNs = 100;

    /// @param origin  bus time of tick 0, ns
    /// @param before  what the file shows so far: a line that was let go since then rises in this text
    waveText(std::uint64_t origin, const waveEnd& before)
        : m_originNs{origin}, m_lastTick{before.tick}, m_levels{before.scl, before.sda}
    {
    }

    void scl(std::uint64_t now, bool level) { change(now, 0, level); }
    void sda(std::uint64_t now, bool level) { change(now, 1, level); }
    std::string take() { return std::exchange(m_text, {}); }
    [[nodiscard]] bool isEmpty() const { return m_text.empty(); }
    /// What ends the file as long as nothing follows: the tick after the time reached, so that a reader sees the last
    /// levels last.
    [[nodiscard]] std::string tail(std::uint64_t now) const;
    [[nodiscard]] waveEnd end() const { return {m_levels[0], m_levels[1], m_lastTick}; }

    static std::string header(const std::string& bus, bool scl, bool sda);

private:
    void change(std::uint64_t now, int line, bool level);
    void stamp(std::uint64_t now);

    std::uint64_t m_originNs;
    std::uint64_t m_lastTick;
    bool m_levels[2];
    std::string m_text;
};

} // namespace kest::sim
