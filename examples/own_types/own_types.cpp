// The application's own types next to the library's: Routes::Prefix and
// Routes::RouteTable are declared in Routes.kiln and generated at build time
// by kiln_generate(), then used like any type of the library: accessors,
// ordered collections, counters, the text form and the reflective interface.
#include <iostream>

#include "Brevant/Brevant.h"
#include "Kiln/TypeRecord.h"
#include "Routes/Prefix.h"
#include "Routes/RouteTable.h"

int main() {
  Kiln::Ptr<Routes::RouteTable> routes = new Routes::RouteTable();
  routes->nameIs("main");

  // Routes keyed by prefix, each with the ECMP group carrying it (group ids
  // as the next-hop manager issues them).
  const Routes::Prefix loopbacks(0x0A000000, 8);
  const Routes::Prefix servers(0xC0A80000, 16);
  routes->groupOfIs(servers, 4);
  routes->groupOfIs(loopbacks, 3);
  routes->changesInc(2);

  // An ordered collection iterates in key order (10.0.0.0/8 first); a value
  // prints in its text form.
  for (const auto& route : routes->groupOf()) {
    std::cout << route.key() << " -> group " << route.value() << '\n';
  }

  // Every generated type is registered by name, and reachable by name.
  const Kiln::TypeRecord* type = Kiln::typeRecord("Routes::RouteTable");
  if (type == nullptr) return 1;
  const std::string changes = type->get(*routes, "changes");
  std::cout << type->name() << ' ' << routes->name() << ": " << changes << " changes\n";
  return routes->groupOf(loopbacks) == 3 && changes == "2" ? 0 : 1;
}
