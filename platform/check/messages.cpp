/// Checks of messages.
#include <array>

#include "platform/check/run.h"
#include "platform/netc.h"

namespace kest::check
{
namespace
{

std::string textOf(const NetcMessage& message)
{
    return message.dataPointer() != nullptr ? std::string(message.dataPointer(), message.dataSize()) : "none";
}

void newMessage(run& run)
{
    const NetcMessage message;
    run.holds("a new message has no payload", message.dataPointer() == nullptr);
    run.same("size of a new message", 0, message.dataSize());
    run.same("identifier, type and flags of a new message", 0, message.identifier + message.type + message.replyFlags);
}

void payload(run& run)
{
    std::string text = "payload";
    NetcMessage message;
    run.holds("a payload is taken", message.setData(text.data(), 7));
    text.assign(7, 'x');
    run.same("payload, as it was when it was set", "payload", textOf(message));
    run.holds("another payload is taken", message.setData("other payload", 13));
    run.same("payload that was set again", "other payload", textOf(message));
}

void ownPart(run& run)
{
    NetcMessage message;
    message.setData("payload", 7);
    run.holds("a part of the old payload is taken", message.setData(message.dataPointer() + 3, 4));
    run.same("payload", "load", textOf(message));
}

void noPayload(run& run)
{
    NetcMessage message;
    message.setData("payload", 7);
    run.holds("size 0 is taken", message.setData("payload", 0));
    run.holds("there is no payload after size 0", message.dataPointer() == nullptr && message.dataSize() == 0);
    message.setData("payload", 7);
    run.holds("no data are refused", !message.setData(nullptr, 7));
    run.holds("there is no payload after that", message.dataPointer() == nullptr && message.dataSize() == 0);
    run.holds("no data of size 0 are taken", message.setData(nullptr, 0));
}

constexpr std::array checks{
    check{"messages: a new message is empty", newMessage},
    check{"messages: a payload is copied", payload},
    check{"messages: a payload can be cut to a part of itself", ownPart},
    check{"messages: size 0 and null leave no payload", noPayload},
};

} // namespace

std::span<const check> messageChecks() { return checks; }

} // namespace kest::check
