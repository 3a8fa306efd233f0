#include "tools/kestd/deviceturn.h"

#include <cerrno>
#include <cstring>
#include <fmt/core.h>
#include <unistd.h>

#include "tools/common/devicetext.h"
#include "tools/common/failure.h"
#include "tools/common/operation.h"
#include "tools/common/when.h"

namespace kest::service
{
namespace
{

using tools::operationUse;

std::unique_ptr<host::iic::operationLock> lockOf(const std::string& text, operationUse use)
{
    try {
        return tools::operationLockOf(tools::parseDeviceText(text), use);
    } catch (const tools::failure&) {
        return nullptr;
    }
}

} // namespace

deviceTurn::state deviceTurn::enter(const std::string& text, bool writes, const peerProcess& peer)
{
    if (!m_known) {
        m_lock = lockOf(text, writes ? operationUse::write : operationUse::read);
        m_known = true;
        m_who = {.process = static_cast<std::uint32_t>(getpid()),
                 .user = geteuid(),
                 .sinceMs = 0,
                 .program = "kestd",
                 .doing =
                     fmt::format("message {} for process {} of user {}", writes ? "write" : "read", peer.pid, peer.uid),
                 .device = text};
    }
    if (m_lock == nullptr) {
        return state::had;
    }
    m_who.sinceMs = tools::nowMs();
    m_error = m_lock->attempt(m_who);
    return m_error == 0 ? state::had : m_error == EAGAIN ? state::waiting : state::refused;
}

std::string deviceTurn::trouble() const
{
    return m_error == EAGAIN ? "another program is at work on the device: " + tools::holderText(m_lock->holders())
                             : fmt::format("the service can't lock the device in '{}': {}",
                                           m_lock->identity().folder.string(), std::strerror(m_error));
}

} // namespace kest::service
