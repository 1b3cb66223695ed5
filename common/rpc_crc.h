// The CRC that ends an RPC request: CRC-32 of IEEE 802.3. Shared by server and client.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace rpc_crc {

constexpr std::array<uint32_t, 256> tableMake() {
  constexpr uint32_t POLYNOMIAL_REFLECTED = 0xEDB88320;
  std::array<uint32_t, 256> table{};
  for (uint32_t byte = 0; byte < table.size(); ++byte) {
    uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) {
      crc = crc >> 1 ^ ((crc & 1) != 0 ? POLYNOMIAL_REFLECTED : 0);
    }
    table[byte] = crc;
  }
  return table;
}

inline constexpr std::array<uint32_t, 256> TABLE = tableMake();

} // namespace rpc_crc

// 0 for no bytes.
constexpr uint32_t rpcCrc32(const uint8_t *bytes, size_t length) {
  uint32_t crc = ~0U;
  for (size_t i = 0; i < length; ++i) {
    crc = crc >> 8 ^ rpc_crc::TABLE[(crc ^ bytes[i]) & 0xFF];
  }
  return ~crc;
}
