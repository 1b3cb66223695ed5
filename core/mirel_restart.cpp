// The restart flag. Main thread, during start-up.

#include "mirel_restart.h"

#include "mirel_trace.h"

#include <cstdio>

namespace {

struct RecordName {
  char text[32];

  RecordName() { snprintf(text, sizeof text, "%s-%u", "Mirel Restart State", mirelVrfId); }
};

} // namespace

uint8_t mirelRestartStatusGet() {
  constexpr const char *OPERATION = "mirelRestartStatusGet";
  uint8_t value = 0;
  if (syncdbGet(&syncdbClient, RecordName().text, &value, sizeof value, 0) != 0) {
    MIREL_TRACE(TRACE_GENERAL, OPERATION, "Failed to get the Restart Status from SyncDB for VRF Id - %u\n", mirelVrfId);
    return 1;
  }
  MIREL_TRACE(TRACE_GENERAL, OPERATION, "Mirel Restart Status for VRF Id - %u is %d\n", mirelVrfId, value);
  return value;
}

int mirelRestartStatusSet(uint32_t, SyncdbClient *client, uint8_t value) {
  const RecordName record;
  uint8_t stored = 0;
  if (syncdbGet(client, record.text, &stored, sizeof stored, 0) != 0) {
    return 1;
  }
  if (stored == value) {
    return 0;
  }
  return syncdbSet(client, record.text, &value, sizeof value) == 0 ? 0 : 1;
}
