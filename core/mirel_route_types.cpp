// Registration of the kernel routes' protocol and route type with RTO. Main thread, once during start-up; the import
// threads may call the platform at the same time, under the same semaphore.

#include "mirel_route_types.h"

#include "api_lock.h"
#include "mirel_trace.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr const char *OPERATION = "vrfRouteTypesRegister";

constexpr const char *PROTOCOL_NAME = "kernel";
constexpr const char *PROTOCOL_CODE = "K";
constexpr const char *ROUTE_TYPE_NAME = "Kernel";
constexpr const char *ROUTE_TYPE_CODE = "";

uint32_t kernelProtoId = 7; // what RTO assigns replaces it
uint32_t kernelRouteType = 0;

struct FreeText {
  void operator()(char *text) const { free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

// Descriptors count the NUL.
tarn_buffdesc describe(char *text) {
  return {.size = static_cast<uint32_t>(strlen(text) + 1), .pstart = text};
}

// Only the first character of a code is sent.
struct Code {
  char text[2];

  explicit Code(const char *code) : text{code[0], '\0'} {}
};

} // namespace

int vrfRouteTypesRegister() {
  const OwnedText protocolName(strdup(PROTOCOL_NAME));
  if (!protocolName) {
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Failed to alloc memory for protoName.pstart in VRF-ID [%d].\n",
                mirelVrfId);
    return 1;
  }
  Code protocolCode(PROTOCOL_CODE);
  tarn_buffdesc name = describe(protocolName.get());
  tarn_buffdesc code = describe(protocolCode.text);
  if (apiCall(rpcclt_tarnapiRoutingProtocolRegister, mirelVrfId, TARN_FAMILY_IPV4, &name, &code, &kernelProtoId) !=
      TARN_OK) {
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Failure in registering ProtoID - %s\n", PROTOCOL_NAME);
    return 1;
  }

  const OwnedText routeTypeName(strdup(ROUTE_TYPE_NAME));
  if (!routeTypeName) {
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Failure in registering Route Type; Out of Memory\n");
    return 1;
  }
  Code routeTypeCode(ROUTE_TYPE_CODE);
  name = describe(routeTypeName.get());
  code = describe(routeTypeCode.text);
  if (apiCall(rpcclt_tarnapiRouteTypeRegister, TARN_FAMILY_IPV4, kernelProtoId, &name, &code, &kernelRouteType) !=
      TARN_OK) {
    MIREL_TRACE(TRACE_RTO_FAILURE, OPERATION, "Failure in registering RouteType - %s for ProtoID - %u\n",
                ROUTE_TYPE_NAME, kernelProtoId);
    return 1;
  }
  MIREL_TRACE(TRACE_RTO_SUCCESS, OPERATION, "Successfully Registered Route Type for ProtoID - %u\n", kernelProtoId);
  return 0;
}
