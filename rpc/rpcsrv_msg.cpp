// One request of the RPC server: checks the datagram, finds the procedure and its arguments, calls it and writes the reply
// over the request. On the server's thread; the buffer is the caller's, and nothing in it is believed: every length and
// offset is added in 64 bits, and what is read twice is read from a copy, since records of a request may overlap.

#include "rpc_crc.h"
#include "rpcsrv.h"

#include <algorithm>

namespace {

constexpr size_t ARG_LENGTH_SIZE = sizeof(int32_t);
constexpr size_t RESULT_SIZE = 16;

bool requestValid(std::span<const uint8_t> buffer, size_t length) {
  if (length > buffer.size() || length < sizeof(RpcMsgHeader)) {
    return false;
  }
  const size_t covered = length - RPC_CRC_SIZE;
  return rpcLoad<uint32_t>(&buffer[covered]) == rpcCrc32(buffer.data(), covered) &&
         rpcLoad<uint32_t>(&buffer[offsetof(RpcMsgHeader, totalLength)]) == length;
}

size_t refusalWrite(std::span<uint8_t> buffer) {
  RpcMsgHeader refusal{};
  refusal.totalLength = RPC_REFUSED;
  memcpy(buffer.data(), &refusal, sizeof refusal);
  return sizeof refusal;
}

// The record of one argument; false when it does not lie inside the request.
bool argLocate(std::span<uint8_t> request, uint32_t offset, rpcArgRef &arg, uint8_t *&record) {
  const uint64_t at = uint64_t{sizeof(RpcMsgHeader)} + offset;
  if (at + ARG_LENGTH_SIZE > request.size()) {
    return false;
  }
  record = request.data() + at;
  const auto length = rpcLoad<int32_t>(record);
  if (length == RPC_ARG_ABSENT) {
    arg = {0, nullptr};
    return true;
  }
  if (length < 0 || at + ARG_LENGTH_SIZE + static_cast<uint64_t>(length) > request.size()) {
    return false;
  }
  arg = {static_cast<uint32_t>(length), record + ARG_LENGTH_SIZE};
  return true;
}

const rpcProcDesc *procedureFind(const rpcProcTable &table, uint32_t procedure) {
  const rpcProcDesc *desc = procedure < table.procedures.size() ? table.procedures[procedure] : nullptr;
  return desc != nullptr && desc->handler != nullptr ? desc : nullptr;
}

int32_t rpcsrvProcDispatch(const rpcProcTable &table, const RpcMsgHeader &header, std::span<uint8_t> request) {
  if (header.argCount > RPC_MAX_ARGS) {
    return RPC_STATUS_BAD_ARGS;
  }
  const rpcProcDesc *desc = procedureFind(table, header.procedure);
  if (desc == nullptr) {
    return RPC_STATUS_NO_PROCEDURE;
  }
  rpcArgRef args[RPC_MAX_ARGS];
  rpcArgRef *argPointers[RPC_MAX_ARGS] = {};
  uint8_t *records[RPC_MAX_ARGS];
  for (uint32_t slot = 0; slot < header.argCount; ++slot) {
    if (!argLocate(request, header.argOffset[slot], args[slot], records[slot])) {
      return RPC_STATUS_BAD_ARGS;
    }
    argPointers[slot] = &args[slot];
  }

  const rpcArgRef resultSlot = header.argCount > 0 ? args[0] : rpcArgRef{};
  uint32_t result[RESULT_SIZE / sizeof(uint32_t)] = {};
  desc->handler(header.argCount, argPointers, result);
  if (resultSlot.data != nullptr) {
    memcpy(resultSlot.data, result, std::min<size_t>(resultSlot.length, sizeof result));
  }
  for (uint32_t slot = 1; slot < header.argCount; ++slot) {
    if (desc->slotSizes[slot] == RPC_SIZE_CHANGES) {
      rpcStore(records[slot], args[slot].length);
    }
  }
  return RPC_STATUS_DONE;
}

} // namespace

size_t rpcsrvMsgProcess(const RpcProgramSlots &programs, std::span<uint8_t> buffer, size_t length) {
  rpcStore(&buffer[offsetof(RpcMsgHeader, status)],
           int32_t{RPC_STATUS_DONE}); // the CRC is that of a request with 0 there
  if (!requestValid(buffer, length)) {
    return refusalWrite(buffer);
  }
  RpcMsgHeader header;
  memcpy(&header, buffer.data(), sizeof header);
  const rpcProcTable *table =
      header.program < programs.size() ? programs[header.program].load(std::memory_order_acquire) : nullptr;
  const std::span<uint8_t> request = buffer.first(length - RPC_CRC_SIZE);
  const int32_t status =
      table != nullptr ? rpcsrvProcDispatch(*table, header, request) : int32_t{RPC_STATUS_NO_PROCEDURE};
  rpcStore(&buffer[offsetof(RpcMsgHeader, status)], status);
  return request.size();
}
