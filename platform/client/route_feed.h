// Best-route changes between orrin and the caller. One request fetches many; the library hands them out in batches of the
// caller's size for as long as no route table changes, then it fetches the rest again. One thread should fetch for a client:
// orrin hands out again to a second thread what the first has not acknowledged.
#pragma once

#include "tarnapi.h"

#include <cstdint>
#include <span>

namespace tarnclient {

// TARN_OK: `records` filled from the first on, more may follow; TARN_NO_MORE: filled with the last, perhaps none.
int32_t nextRouteChanges(uint32_t client, std::span<BestRouteRecord> records);

// Unpacks wire routes into records that the caller has cleared. Returns how many were unpacked and removes them from `routes`.
size_t unpackRoutes(std::span<const std::byte> &routes, std::span<BestRouteRecord> records);

} // namespace tarnclient
