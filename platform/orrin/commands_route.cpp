// Commands about routes, one or many. Used by orrin's one thread.

#include "commands.h"

#include "routes.h"

namespace orrin {

namespace {

// route and routes ...

bool editOne(Switch &sw, Words &words, RouteEdit edit, std::string &out) {
  Route route;
  if (!parseRoute(words, route, out)) {
    return false;
  }
  out = editRoutes(sw, edit, route.vrf, route.prefix, 1, route.attrs);
  return out.empty();
}

bool editMany(Switch &sw, Words &words, RouteEdit edit, std::string &out) {
  Route route;
  uint32_t count = 0;
  if (!takeKeyword(words, "vrf", out) || !takeNumber(words, "vrf", route.vrf, out) ||
      !takePrefix(words, route.prefix, out) || !takeKeyword(words, "count", out) ||
      !takeNumber(words, "count", count, out, {1})) {
    return false;
  }
  const bool good = edit == RouteEdit::REMOVE ? takeEnd(words, out) : parseRouteAttrs(words, route.attrs, out);
  if (!good) {
    return false;
  }
  out = editRoutes(sw, edit, route.vrf, route.prefix, count, route.attrs);
  return out.empty();
}

bool routeAdd(Switch &sw, Words &words, std::string &out) {
  return editOne(sw, words, RouteEdit::ADD, out);
}

bool routeModify(Switch &sw, Words &words, std::string &out) {
  return editOne(sw, words, RouteEdit::MODIFY, out);
}

bool routeDel(Switch &sw, Words &words, std::string &out) {
  Route route;
  if (!takeKeyword(words, "vrf", out) || !takeNumber(words, "vrf", route.vrf, out) ||
      !takePrefix(words, route.prefix, out) || !takeEnd(words, out)) {
    return false;
  }
  out = editRoutes(sw, RouteEdit::REMOVE, route.vrf, route.prefix, 1, {});
  return out.empty();
}

bool routesAdd(Switch &sw, Words &words, std::string &out) {
  return editMany(sw, words, RouteEdit::ADD, out);
}

bool routesModify(Switch &sw, Words &words, std::string &out) {
  return editMany(sw, words, RouteEdit::MODIFY, out);
}

bool routesDel(Switch &sw, Words &words, std::string &out) {
  return editMany(sw, words, RouteEdit::REMOVE, out);
}

constexpr Command COMMANDS[] = {
    {"route add", routeAdd, true},   {"route modify", routeModify, true},   {"route del", routeDel, true},
    {"routes add", routesAdd, true}, {"routes modify", routesModify, true}, {"routes del", routesDel, true},
};

} // namespace

std::span<const Command> routeCommands() {
  return COMMANDS;
}

} // namespace orrin
