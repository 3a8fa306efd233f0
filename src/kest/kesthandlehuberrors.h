/// What a 922 hub says about its last command, and what is done about it.
#pragma once

#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

void kest_read922HubErrStatus(mern_t handle, unsigned int* status, ErrlEntry*& errl);
void kest_read922HubPrevCmdStatus(mern_t handle, unsigned int* status, ErrlEntry*& errl);
void kest_reset922HubSubBus(mern_t handle, ErrlEntry*& errl);
/// @param direction  1 write, 0 read
/// @param[out] subBusReset  1 when a sub-bus reset was tried
/// @param configBlock  the 44-byte block of the transfer, set again before the transfer is repeated
/// @param offset  the seek value of the transfer
void kest_checkAndHandle922HubErr(mern_t handle, ErrlEntry*& errl, unsigned int* size, int direction,
                                  unsigned char* subBusReset, const char* path, unsigned int hubContext,
                                  void* configBlock, void* buffer, unsigned int offset);

} // namespace kest
