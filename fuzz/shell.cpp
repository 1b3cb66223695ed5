// One request to the agent's debug shell: words, each with its NUL. Text without a NUL at its end is also run as the operations
// that an environment names for the start.

#include "agent.h"

#include "devshell.h"
#include "devshell_output.h"
#include "devshell_protocol.h"
#include "mirel_context.h"
#include "mirel_debug.h"
#include "qvproc.h"

#include <cstdio>
#include <cstdlib>
#include <string>

int LLVMFuzzerInitialize(int *, char ***) {
  agentSetUp();
  mirelShellOperationsRegister();
  setenv("QVPROC_RUN_DIR", std::string(200, '/').c_str(), 1); // too long for a socket: no server is started
  return programOutputTakeOver() ? 0 : 1;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<uint8_t> request = received(data, size, DEVSHELL_REQUEST_MAX);
  devshellRun({reinterpret_cast<const char *>(request.data()), request.size()});
  if (size > 0 && data[size - 1] != '\0') {
    setenv("QVPROC_START_OPERATIONS", std::string(data, data + size).c_str(), 1);
    qvproc_devshell_init();
  }
  mirelDebugFlags = UINT32_MAX;
  rtoDebugMask = UINT32_MAX;
  agentInputEnd();
  return 0;
}
