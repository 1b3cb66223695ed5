// Best-route changes on their way to the caller: many are fetched from orrin in one request, and handed out in batches of the
// caller's size. A batch from orrin is acknowledged by the request for the next, which goes out when the caller has all of it: what
// orrin counts as told was handed out, and nothing is handed out twice.
#pragma once

#include "tarnapi.h"

#include <cstdint>
#include <span>

namespace tarnclient {

// TARN_OK: `records` filled from the first on, more may follow; TARN_NO_MORE: filled with the last, perhaps none.
int32_t nextRouteChanges(uint32_t client, std::span<BestRouteRecord> records);

// Throws away what is held for a client id.
void forgetRouteChanges(uint32_t client);

// Unpacks wire routes into records that the caller has cleared. Returns how many were unpacked and removes them from `routes`.
size_t unpackRoutes(std::span<const std::byte> &routes, std::span<BestRouteRecord> records);

} // namespace tarnclient
