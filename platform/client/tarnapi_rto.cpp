// The exported functions of the platform API client that speak with the route table. Each is one remote call; a failing call
// leaves its outputs as they were.

#include "calls.h"
#include "route_feed.h"

#include <algorithm>

using namespace tarnclient;
using namespace tarnwire;

namespace {

// Two texts behind one request, the first with its length in the args.
struct TwoTexts {
  char bytes[2 * NAME_MAX_BYTES];
  uint32_t first = 0;
  uint32_t both = 0;

  bool set(const tarn_buffdesc *one, const tarn_buffdesc *two) {
    const std::string_view texts[2] = {givenText(one), givenText(two)};
    if (texts[0].size() > NAME_MAX_BYTES || texts[1].size() > NAME_MAX_BYTES) {
      return false;
    }
    std::memcpy(bytes, texts[0].data(), texts[0].size());
    std::memcpy(bytes + texts[0].size(), texts[1].data(), texts[1].size());
    first = static_cast<uint32_t>(texts[0].size());
    both = static_cast<uint32_t>(texts[0].size() + texts[1].size());
    return true;
  }
  std::string_view view() const { return {bytes, both}; }
};

// A kernel route and its next hops behind one request.
struct Report {
  char bytes[REPORT_MAX_BYTES];
  uint32_t size = 0;

  bool set(const RtoRouteRecord &route, const tarn_buffdesc &nextHops) {
    const size_t hops = nextHops.size / sizeof(NextHopRecord);
    if (nextHops.size % sizeof(NextHopRecord) != 0 || hops > REPORTED_HOPS_MAX || hops != route.numNextHops) {
      return false;
    }
    ReportedRoute head{
        route.prefix.family, {}, route.routeProto, route.metric, route.prefixLen, route.routeType, route.rejectRoute,
        route.discardRoute};
    std::memcpy(head.prefix, route.prefix.ipv6, sizeof head.prefix);
    add(head);
    for (size_t index = 0; index < hops; ++index) {
      NextHopRecord record;
      std::memcpy(&record, nextHops.pstart + index * sizeof record, sizeof record);
      ReportedHop hop{record.addr.family, {}, record.intIfNum};
      std::memcpy(hop.address, record.addr.ipv6, sizeof hop.address);
      add(hop);
    }
    return true;
  }
  template <class Record> void add(const Record &record) {
    std::memcpy(bytes + size, &record, sizeof record);
    size += sizeof record;
  }
};

int32_t reportCall(Op op, uint32_t vrfId, const RtoRouteRecord *route, const tarn_buffdesc *nextHops) {
  Report report;
  return report.set(*route, *nextHops) ? call(op, {vrfId}, {report.bytes, report.size}).result : int32_t{TARN_INVALID};
}

// The records of a descriptor, at most `count`.
std::span<BestRouteRecord> recordsOf(const tarn_buffdesc *records, uint32_t count) {
  const size_t room = records->size / sizeof(BestRouteRecord);
  return {reinterpret_cast<BestRouteRecord *>(records->pstart), std::min<size_t>(room, count)};
}

} // namespace

extern "C" int32_t rpcclt_tarnapiBestRouteEventRegisterVr(tarnapiClient *, uint32_t vrfId, uint32_t family,
                                                          uint32_t pid, const tarn_buffdesc *clientName,
                                                          uint32_t *clientId) {
  const Answer answer = call(BEST_ROUTE_REGISTER, {vrfId, family, pid}, givenText(clientName));
  if (answer.result == TARN_OK) {
    *clientId = answer.values[0];
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiBestRouteEventDeregister(tarnapiClient *, uint32_t clientId) {
  return plainCall(BEST_ROUTE_DEREGISTER, {clientId});
}

extern "C" int32_t rpcclt_tarnapiBestRouteChangeNextGetMult(tarnapiClient *, uint32_t clientId, uint32_t count,
                                                            const tarn_buffdesc *records) {
  const std::span<BestRouteRecord> room = recordsOf(records, count);
  return room.empty() ? TARN_INVALID : nextRouteChanges(clientId, room);
}

extern "C" int32_t rpcclt_tarnapiIntfBestRoutesNextGet(tarnapiClient *, uint32_t clientId, uint32_t intIfNum,
                                                       uint32_t count, const tarn_buffdesc *records) {
  const std::span<BestRouteRecord> room = recordsOf(records, count);
  if (room.empty()) {
    return TARN_INVALID;
  }
  const uint32_t wanted = static_cast<uint32_t>(room.size());
  Answer answer = call(INTF_BEST_ROUTES_NEXT_GET, {clientId, intIfNum, wanted, room[0].prefix.ipv4, room[0].prefixLen});
  if (answer.result == TARN_OK || answer.result == TARN_NO_MORE) {
    unpackRoutes(answer.tail, room);
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiRoutingProtocolRegister(tarnapiClient *, uint32_t vrfId, uint32_t family,
                                                         const tarn_buffdesc *name, const tarn_buffdesc *code,
                                                         uint32_t *protoId) {
  TwoTexts texts;
  if (!texts.set(name, code)) {
    return TARN_INVALID;
  }
  const Answer answer = call(ROUTING_PROTOCOL_REGISTER, {vrfId, family, *protoId, texts.first}, texts.view());
  if (answer.result == TARN_OK) {
    *protoId = answer.values[0];
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiRouteTypeRegister(tarnapiClient *, uint32_t family, uint32_t protoId,
                                                   const tarn_buffdesc *name, const tarn_buffdesc *code,
                                                   uint32_t *routeType) {
  TwoTexts texts;
  if (!texts.set(name, code)) {
    return TARN_INVALID;
  }
  const Answer answer = call(ROUTE_TYPE_REGISTER, {family, protoId, texts.first}, texts.view());
  if (answer.result == TARN_OK) {
    *routeType = answer.values[0];
  }
  return answer.result;
}

extern "C" int32_t rpcclt_tarnapiStackIfIndexIntIfNumGet(tarnapiClient *, uint32_t ifIndex, uint32_t *intIfNum) {
  return numberCall(STACK_INDEX_INTERFACE_GET, {ifIndex}, intIfNum);
}

extern "C" int32_t rpcclt_tarnapiKernelRouteAddVr(tarnapiClient *, uint32_t vrfId, const RtoRouteRecord *route,
                                                  const tarn_buffdesc *nextHops) {
  return reportCall(KERNEL_ROUTE_ADD, vrfId, route, nextHops);
}

extern "C" int32_t rpcclt_tarnapiKernelRouteDelVr(tarnapiClient *, uint32_t vrfId, const RtoRouteRecord *route,
                                                  const tarn_buffdesc *nextHops) {
  return reportCall(KERNEL_ROUTE_DELETE, vrfId, route, nextHops);
}

// IP SLA

extern "C" int32_t rpcclt_tarnapiMirelProbeResultIpSlaNotify(tarnapiClient *, uint32_t vrfId, uint32_t ipSlaId,
                                                             uint32_t probeReturnCode, uint32_t lastProbeRTTvalue,
                                                             uint32_t latestOperationStartUpTime) {
  return plainCall(PROBE_RESULT, {vrfId, ipSlaId, probeReturnCode, lastProbeRTTvalue, latestOperationStartUpTime});
}
