// The scenario that ulonat-sim runs without a file: static NAT from
// configuration to a chip that is too small, and back.

#include "tools/ulonat-sim/Scenario.h"

namespace UloNatSim {

namespace {

// Ethernet1 (VRF default) has three rules with two filter addresses each:
// 3 x 2 filters x 2 directions = 12 chip entries, the whole chip. Ethernet2
// (VRF red) comes up late, once red has its id, and its two rules find the
// chip full. At 20 s the chip grows (another table profile, say); the next
// review programs what waited.
char const* const builtIn = R"json(
{
  "name": "built-in: two VRFs, a chip too small, recovery",
  "chip": { "capacity": 12, "commit": "immediate" },
  "capabilities": { "destinationNatNextHopNeeded": true },
  "events": [
    { "at": 0.0, "event": "vrf", "vrf": "default", "vrfId": 0 },
    { "at": 0.0, "event": "intf", "intf": "Ethernet1", "vrf": "default",
      "members": { "Ethernet1": 10 } },
    { "at": 0.0, "event": "intf", "intf": "Ethernet2", "vrf": "red",
      "members": { "Ethernet2": 20 } },
    { "at": 0.0, "event": "start" },
    { "at": 1.0, "event": "staticAdd", "intf": "Ethernet1", "local": "10.0.0.1",
      "global": "192.0.2.1", "target": "source", "vlan": 10,
      "filters": [ "198.51.100.0/24", "203.0.113.0/24" ] },
    { "at": 1.0, "event": "staticAdd", "intf": "Ethernet1", "local": "10.0.0.2:8080",
      "global": "192.0.2.2:80", "target": "source", "protocol": 6, "vlan": 10,
      "filters": [ "198.51.100.0/24", "203.0.113.0/24" ] },
    { "at": 1.0, "event": "staticAdd", "intf": "Ethernet1", "local": "192.0.2.10",
      "global": "10.0.0.10", "target": "destination", "vlan": 10,
      "filters": [ "198.51.100.7", "203.0.113.0/255.255.255.0" ] },
    { "at": 1.5, "event": "nextHop", "vrfId": 0, "addr": "10.0.0.10", "nextHopId": 4001 },
    { "at": 2.0, "event": "expect", "hwStatic": { "Ethernet1": 3 }, "chipEntries": 12,
      "engines": 1, "chipMatchesHwStatus": true },
    { "at": 3.0, "event": "vrf", "vrf": "red", "vrfId": 0 },
    { "at": 4.0, "event": "staticAdd", "intf": "Ethernet2", "local": "10.1.0.1",
      "global": "192.0.2.101", "target": "source", "vlan": 20,
      "filters": [ "198.51.100.0/24", "203.0.113.0/24" ] },
    { "at": 4.0, "event": "staticAdd", "intf": "Ethernet2", "local": "10.1.0.2",
      "global": "192.0.2.102", "target": "source", "vlan": 20,
      "filters": [ "198.51.100.0/24", "203.0.113.0/24" ] },
    { "at": 5.0, "event": "expect", "engines": 1, "hwStatic": 3, "unprogrammed": 0 },
    { "at": 6.0, "event": "vrf", "vrf": "red", "vrfId": 7 },
    { "at": 7.0, "event": "expect", "engines": 2, "hwStatic": { "Ethernet1": 3, "Ethernet2": 0 },
      "unprogrammed": { "Ethernet2": 2 }, "logs": { "NAT_HW_RESOURCE_FULL": 1 },
      "chipMatchesHwStatus": true },
    { "at": 20.0, "event": "capacity", "value": 40 },
    { "at": 20.5, "event": "expect", "unprogrammed": { "Ethernet2": 2 } },
    { "at": 28.0, "event": "expect", "hwStatic": { "Ethernet1": 3, "Ethernet2": 2 },
      "chipEntries": 20, "unprogrammed": 0,
      "logs": { "NAT_HW_RESOURCE_FULL": 1, "NAT_HW_RESOURCE_NORMAL": 1 },
      "chipMatchesHwStatus": true }
  ],
  "runUntil": 40.0
}
)json";

} // namespace

Scenario builtInScenario() { return loadScenario("built-in", nlohmann::json::parse(builtIn)); }

} // namespace UloNatSim
