// The agents' restart flags in the sync database: made with the VRF, holding 0, and removed with it.
#pragma once

#include <cstdint>
#include <string>

namespace orrin {

// A record that is there keeps its value. False with the reason.
bool createRestartRecord(uint32_t vrf, std::string &error);
void removeRestartRecord(uint32_t vrf);

} // namespace orrin
