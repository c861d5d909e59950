#include "tools/ulonat-sim/Scenario.h"
#include "tools/ulonat-sim/ScenarioFields.h"
#include "tools/ulonat-sim/ScenarioVrf.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <limits>
#include <set>
#include <sstream>

namespace UloNatSim {

using nlohmann::json;

namespace {

Ip::Nat::StaticKey staticKeyOf(Fields const& f) {
   Lumet::IpAndPort const local = f.ipAndPort("local");
   std::string const table = f.string("table", "ingress");
   if (table != "ingress" && table != "egress") f.fail("table", "must be \"ingress\" or \"egress\"");
   return Ip::Nat::StaticKey(local, Vor::String(f.string("acl", "")),
                             table == "egress" ? Ip::Nat::StaticKey::egress
                                               : Ip::Nat::StaticKey::ingress);
}

Ip::Nat::NatStaticConnection staticConnectionOf(Fields const& f) {
   Ip::Nat::StaticKey const key = staticKeyOf(f);
   Lumet::IpAndPort const global = f.ipAndPort("global");
   std::string const target = f.string("target", "source");
   if (target != "source" && target != "destination") {
      f.fail("target", "must be \"source\" or \"destination\"");
   }
   auto const protocol = static_cast<Vor::U8>(f.integer("protocol", 0, 255, 0));
   // Required: the engine publishes the VLAN of a source rule to the
   // multicast library, which takes only 1 to 4094.
   auto const vlan = static_cast<Vor::U16>(f.integer("vlan", 1, 4094));
   bool const forward = f.boolean("forward", true);
   Ip::Nat::NatStaticConnection conn(
      key, global,
      target == "destination" ? Ip::Nat::destination : Ip::Nat::source_,
      protocol, vlan, forward);
   if (f.has("filters")) {
      json const& filters = f.raw("filters");
      if (!filters.is_array()) f.fail("filters", "must be a list of addresses");
      for (auto const& item : filters) {
         if (!item.is_string()) f.fail("filters", "each filter must be a string");
         auto filter = Sim::parseFilter(item.get<std::string>());
         if (!filter) f.fail("filters", "'" + item.get<std::string>() + "' is not an address/mask");
         conn.filterAddressIs(*filter, true);
      }
   }
   return conn;
}

std::vector<std::string> intfList(Fields const& f, char const* field) {
   json const& v = f.raw(field);
   if (!v.is_array()) f.fail(field, "must be a list of interface names");
   std::vector<std::string> out;
   for (auto const& item : v) {
      if (!item.is_string() || !Lumet::IntfId::parse(item.get<std::string>())) {
         f.fail(field, "each member must be an interface name");
      }
      out.push_back(item.get<std::string>());
   }
   return out;
}

Ip::Nat::NatTwiceConnection twiceConnectionOf(Fields const& f) {
   auto const group = static_cast<Vor::U16>(f.integer("group", 1, 65535));
   // A zero old address makes half a rule, which dynamic connections complete.
   Lumet::IpAndPort const srcOld = f.ipAndPort("srcOld");
   Lumet::IpAndPort const dstOld = f.ipAndPort("dstOld");
   Lumet::IpAndPort const srcNew = f.ipAndPort("srcNew");
   Lumet::IpAndPort const dstNew = f.ipAndPort("dstNew");
   auto const protocol = static_cast<Vor::U8>(f.integer("protocol", 0, 255, 0));
   auto const vlan = static_cast<Vor::U16>(f.integer("vlan", 1, 4094));
   return Ip::Nat::NatTwiceConnection(group, srcOld, dstOld, srcNew, dstNew, protocol, vlan);
}

Sim::SimMrouteSide::Route routeOf(Fields const& f) {
   Sim::SimMrouteSide::Route route;
   route.vlanId = static_cast<Vor::U16>(f.integer("vlan", 1, 4094));
   if (f.has("source")) route.sourceIp = f.ip("source");
   if (f.has("group")) route.groupIp = f.ip("group");
   if (route.sourceIp.isZero() && route.groupIp.isZero()) f.fail("group", "a route needs a source or a group");
   return route;
}

std::map<std::string, std::size_t> countMap(Fields const& f, char const* field) {
   std::map<std::string, std::size_t> out;
   json const& v = f.raw(field);
   if (!v.is_object()) f.fail(field, "must be an object of names to counts");
   for (auto const& [name, n] : v.items()) {
      if (!n.is_number_unsigned() && !(n.is_number_integer() && n.get<long long>() >= 0)) {
         f.fail(field, "count of '" + name + "' must be a non-negative integer");
      }
      out[name] = n.get<std::size_t>();
   }
   return out;
}

Expectation expectationOf(Fields const& f, Scenario const& s) {
   Expectation e;
   auto totalOrMap = [&](char const* field, std::optional<std::size_t>& total,
                         std::map<std::string, std::size_t>& perIntf) {
      if (!f.has(field)) return;
      if (f.raw(field).is_object()) {
         perIntf = countMap(f, field);
         for (auto const& [name, n] : perIntf) {
            if (!Lumet::IntfId::parse(name)) f.fail(field, "'" + name + "' is not an interface name");
         }
      } else {
         total = f.integer(field, 0, std::numeric_limits<std::size_t>::max());
      }
   };
   totalOrMap("hwStatic", e.hwStaticTotal, e.hwStatic);
   totalOrMap("unprogrammed", e.unprogrammedTotal, e.unprogrammed);
   if (f.has("chipEntries")) e.chipEntries = f.integer("chipEntries", 0, std::numeric_limits<std::size_t>::max());
   if (f.has("engines")) e.engines = f.integer("engines", 0, std::numeric_limits<std::size_t>::max());
   if (f.has("logs")) {
      e.logs = countMap(f, "logs");
      for (auto const& [name, n] : e.logs) {
         if (name != "NAT_HW_RESOURCE_FULL" && name != "NAT_HW_RESOURCE_NORMAL" &&
             name != "NAT_RULE_IF_MAX") {
            f.fail("logs", "'" + name + "' is not a message of the engine");
         }
      }
   }
   e.chipMatchesHwStatus = f.boolean("chipMatchesHwStatus", false);
   totalOrMap("hwTwice", e.hwTwiceTotal, e.hwTwice);
   totalOrMap("unprogrammedTwice", e.unprogrammedTwiceTotal, e.unprogrammedTwice);
   if (f.has("chipTwiceEntries")) {
      e.chipTwiceEntries = f.integer("chipTwiceEntries", 0, std::numeric_limits<std::size_t>::max());
   }
   if (f.has("halfPairs")) e.halfPairs = f.integer("halfPairs", 0, std::numeric_limits<std::size_t>::max());
   if (f.has("staticOifs")) {
      Fields const r(f.file(), f.where() + ", staticOifs", f.raw("staticOifs"));
      Expectation::RuleOifs rule;
      rule.intf = r.intf("intf");
      rule.key = staticKeyOf(r);
      rule.oifs = intfList(r, "oifs");
      r.noOthers();
      e.staticOifs = rule;
   }
   if (f.has("twiceNextHop")) {
      Fields const r(f.file(), f.where() + ", twiceNextHop", f.raw("twiceNextHop"));
      Expectation::TwiceNextHop hop;
      hop.group = static_cast<Vor::U16>(r.integer("group", 1, 65535));
      hop.forward = r.boolean("forward", true);
      hop.nextHopId = r.integer("nextHopId", 0, std::numeric_limits<Vor::U64>::max());
      r.noOthers();
      e.twiceNextHop = hop;
   }
   if (f.has("helperCalls")) {
      e.helperCalls = countMap(f, "helperCalls");
      for (auto const& [name, n] : e.helperCalls) {
         if (name != "adds" && name != "deletes" && name != "updates" && name != "twiceAdds" &&
             name != "twiceDeletes" && name != "twiceUpdates") {
            f.fail("helperCalls", "'" + name + "' is not a counted helper call");
         }
      }
   }
   loadVrfExpectation(f, e.vrf);
   loadAsyncExpectation(f, e.async, s);
   loadDynamicExpectation(f, e.dynamic);
   return e;
}

} // namespace

Scenario loadScenario(std::string const& file, json const& doc, LoadOverrides const& overrides) {
   Scenario s;
   s.file = file;
   Fields const top(file, "scenario", doc);
   s.name = top.string("name", file);
   if (top.has("chip")) {
      Fields const chip(file, "chip", top.raw("chip"));
      s.options.capacity = chip.integer("capacity", 0, 100000000, 1024);
      std::string const commit = chip.string("commit", "immediate");
      if (commit != "immediate" && commit != "batch") {
         chip.fail("commit", "must be \"immediate\" or \"batch\"");
      }
      s.options.immediate = commit == "immediate";
      chip.noOthers();
   }
   if (top.has("capabilities")) {
      Fields const caps(file, "capabilities", top.raw("capabilities"));
      s.options.dynamicNatSupported = caps.boolean("dynamicNatSupported", false);
      s.options.destinationNatNextHopNeeded = caps.boolean("destinationNatNextHopNeeded", false);
      s.options.natCountersSupported = caps.boolean("natCountersSupported", false);
      s.options.natVrfHopStaticSupported = caps.boolean("natVrfHopStaticSupported", false);
      s.options.natOutsideVrfSupported = caps.boolean("natOutsideVrfSupported", false);
      caps.noOthers();
   }
   s.options.multicast = top.boolean("multicastRouting", false);
   if (top.has("helper")) {
      Fields const helper(file, "helper", top.raw("helper"));
      s.options.hwNatProfileSupported = helper.boolean("hwNatProfileSupported", false);
      if (helper.has("counterPollingInterval")) {
         s.options.counterPollingInterval = helper.number("counterPollingInterval", 0.0, 3600.0);
      }
      loadHelperMode(helper, s, overrides);
      helper.noOthers();
   } else {
      json const none = json::object();
      loadHelperMode(Fields(file, "helper", none), s, overrides);
   }
   AsyncLoadState asyncState;
   json const& events = top.raw("events");
   if (!events.is_array()) top.fail("events", "must be a list of events");
   double last = 0.0;
   std::size_t index = 0;
   // Interfaces configured so far in the list: a rule on any other would be
   // ignored by the run, so it is refused here, before anything runs.
   std::set<std::string> configured;
   auto requireConfigured = [&](Fields const& f, std::string const& intf) {
      if (!configured.count(Lumet::IntfId(intf).stringValue())) {
         f.fail("intf", "interface '" + intf +
                           "' is not configured here (no earlier \"intf\" event, or removed by \"intfDel\")");
      }
   };
   for (auto const& item : events) {
      ++index;
      std::string where = "event #" + std::to_string(index);
      Fields const f0(file, where, item);
      Event e;
      e.kind = f0.string("event");
      e.label = where + " (" + e.kind + ")";
      Fields const f(file, e.label, item);
      f.used("event");
      e.at = f.has("at") ? f.number("at", 0.0, 1e9) : last;
      checkEventForMode(f, e, s, asyncState);
      if (e.at < last) f.fail("at", "goes back in time (previous event at " + std::to_string(last) + ")");
      last = e.at;
      if (e.kind == "start") {
         if (s.explicitStart) f.fail("event", "the system is started once");
         s.explicitStart = true;
      } else if (e.kind == "intf") {
         e.intf = f.intf("intf");
         configured.insert(Lumet::IntfId(e.intf).stringValue());
         e.vrf = f.string("vrf", "");
         if (e.vrf.size() > 100) f.fail("vrf", "longer than 100 bytes");
         e.configKey = f.string("configKey", e.intf);
         if (f.has("members")) {
            json const& m = f.raw("members");
            if (!m.is_object()) f.fail("members", "must be an object of interface names to VLANs");
            for (auto const& [name, vlan] : m.items()) {
               if (!Lumet::IntfId::parse(name)) f.fail("members", "'" + name + "' is not an interface name");
               if (!vlan.is_number_integer() || vlan.get<long long>() < 1 || vlan.get<long long>() > 4094) {
                  f.fail("members", "VLAN of '" + name + "' out of range (1 to 4094)");
               }
               e.members[name] = vlan.get<Vor::U16>();
            }
         }
      } else if (e.kind == "intfVrf") {
         e.intf = f.intf("intf");
         e.vrf = f.string("vrf");
         if (e.vrf.size() > 100) f.fail("vrf", "longer than 100 bytes");
      } else if (e.kind == "intfDel" || e.kind == "intfDelAbrupt") {
         e.intf = f.intf("intf");
         configured.erase(Lumet::IntfId(e.intf).stringValue());
      } else if (e.kind == "vrf") {
         e.vrf = f.string("vrf");
         if (e.vrf.empty() || e.vrf.size() > 100) f.fail("vrf", "must be 1 to 100 bytes");
         e.vrfId = static_cast<Vor::U32>(f.integer("vrfId", 0, 0xffffffffu));
      } else if (e.kind == "vrfDel") {
         e.vrf = f.string("vrf");
      } else if (e.kind == "staticAdd") {
         e.intf = f.intf("intf");
         requireConfigured(f, e.intf);
         e.conn = staticConnectionOf(f);
      } else if (e.kind == "staticDel") {
         e.intf = f.intf("intf");
         e.key = staticKeyOf(f);
      } else if (e.kind == "aclSharing") {
         e.value = f.boolean("value");
      } else if (e.kind == "counterStatus") {
         e.value = f.boolean("value");
      } else if (e.kind == "nextHop") {
         e.vrfId = static_cast<Vor::U32>(f.integer("vrfId", 0, 0xffffffffu));
         e.addr = f.ip("addr");
         e.nextHopId = f.integer("nextHopId", 0, std::numeric_limits<Vor::U64>::max());
      } else if (e.kind == "twiceAdd") {
         e.intf = f.intf("intf");
         requireConfigured(f, e.intf);
         e.twice = twiceConnectionOf(f);
      } else if (e.kind == "twiceDel") {
         e.intf = f.intf("intf");
         e.group = static_cast<Vor::U16>(f.integer("group", 1, 65535));
      } else if (e.kind == "mcastMode") {
         e.count = f.integer("value", 0, 255);
      } else if (e.kind == "mroute" || e.kind == "mrouteDel") {
         if (!s.options.multicast) f.fail("event", "multicast routes need \"multicastRouting\": true");
         e.route = routeOf(f);
         if (e.kind == "mroute") {
            for (auto const& name : intfList(f, "oifs")) e.oifs.oifIs(Lumet::IntfId(name));
         }
      } else if (e.kind == "capacity") {
         e.count = f.integer("value", 0, 100000000);
      } else if (e.kind == "refuseNext" || e.kind == "failNextCommit") {
         e.count = f.integer("count", 0, 1000000);
      } else if (e.kind == "run") {
         // Only moves time to "at".
      } else if (e.kind == "expect") {
         e.expect = expectationOf(f, s);
      } else if (e.kind == "verify") {
         e.findings = f.integer("findings", 0, 1000000, 0);
      } else if (e.kind == "faultRefCount") {
         // Faults corrupt the engine's records behind its back, so that a
         // verify has something to find.
         e.intf = f.intf("intf");
         e.vrfId = static_cast<Vor::U32>(f.integer("vrfId", 0, 0xffffffffu, 0));
         e.addr = f.ip("addr");
         e.count = f.integer("count", 0, 0xffffffffu);
      } else if (e.kind == "faultLeak") {
         e.vrfId = static_cast<Vor::U32>(f.integer("vrfId", 0, 0xffffffffu, 0));
         e.addr = f.ip("addr");
      } else if (e.kind == "faultHwStaticDel") {
         e.intf = f.intf("intf");
         e.key = staticKeyOf(f);
      } else if (loadVrfEvent(f, e)) {
         // A VRF NAT event.
      } else if (loadAsyncEvent(f, e, s, asyncState)) {
         // An event of the asynchronous pipeline.
      } else if (loadDynamicEvent(f, e)) {
         // A dynamic NAT or trap rule event.
      } else {
         f.fail("event", "unknown event '" + e.kind + "'");
      }
      f.noOthers();
      s.events.push_back(std::move(e));
   }
   checkAsyncEnd(top, asyncState);
   s.runUntil = top.has("runUntil") ? top.number("runUntil", last, 1e9) : last;
   top.noOthers();
   return s;
}

namespace {

// Line and column (both from 1) of a byte offset in the text.
std::string placeOf(std::string const& text, std::size_t offset) {
   offset = std::min(offset, text.size());
   std::size_t line = 1;
   std::size_t lineStart = 0;
   for (std::size_t i = 0; i < offset; ++i) {
      if (text[i] == '\n') {
         ++line;
         lineStart = i + 1;
      }
   }
   return "line " + std::to_string(line) + ", column " + std::to_string(offset - lineStart + 1);
}

// A first pass over the text, for what the document parser lets through or
// reports badly: a field written twice (the parser keeps the last one, so a
// second "at" or "events" would silently replace the first) and a number too
// large for a double (reported without its place).
class JsonChecker : public nlohmann::json_sax<json> {
 public:
   JsonChecker(std::string const& file, std::string const& text) : file_(file), text_(text) {}

   bool null() override { return element(); }
   bool boolean(bool) override { return element(); }
   bool number_integer(number_integer_t) override { return element(); }
   bool number_unsigned(number_unsigned_t) override { return element(); }
   bool number_float(number_float_t, string_t const&) override { return element(); }
   bool string(string_t&) override { return element(); }
   bool binary(binary_t&) override { return element(); }
   bool start_object(std::size_t) override {
      element();
      frames_.push_back(Frame{true, {}, {}, 0});
      return true;
   }
   bool key(string_t& name) override {
      Frame& f = frames_.back();
      if (!f.keys.insert(name).second) {
         throw ScenarioError{file_ + ": " + path() + ": field '" + name + "' written twice"};
      }
      f.key = name;
      return true;
   }
   bool end_object() override {
      frames_.pop_back();
      return true;
   }
   bool start_array(std::size_t) override {
      element();
      frames_.push_back(Frame{false, {}, {}, 0});
      return true;
   }
   bool end_array() override {
      frames_.pop_back();
      return true;
   }
   bool parse_error(std::size_t position, std::string const& lastToken,
                    nlohmann::detail::exception const& e) override {
      if (dynamic_cast<json::out_of_range const*>(&e) != nullptr) {
         // The position is just past the number; name where it starts.
         std::size_t const start = position > lastToken.size() ? position - lastToken.size() : 0;
         throw ScenarioError{file_ + ": number too large at " + placeOf(text_, start) + " ('" +
                             lastToken + "')"};
      }
      // The library's message starts with its own tag ("[json.exception...] ").
      std::string what = e.what();
      if (auto const end = what.find("] "); what.starts_with("[json.exception") && end != std::string::npos) {
         what.erase(0, end + 2);
      }
      throw ScenarioError{file_ + ": invalid JSON: " + what};
   }

 private:
   struct Frame {
      bool object;
      std::set<std::string> keys;
      std::string key;        // of an object: the field being read
      std::size_t count;      // of an array: elements seen so far
   };

   bool element() {
      if (!frames_.empty() && !frames_.back().object) ++frames_.back().count;
      return true;
   }

   // Where the current object is, in the words of the loader's messages:
   // "event #3, in 'members'", "scenario, in 'chip'".
   std::string path() const {
      std::string out = "scenario";
      std::size_t i = 0;
      if (frames_.size() >= 3 && frames_[0].key == "events" && !frames_[1].object) {
         out = "event #" + std::to_string(frames_[1].count);
         i = 2;
      }
      std::string inner;
      for (; i + 1 < frames_.size(); ++i) {
         Frame const& f = frames_[i];
         if (f.object) {
            inner += (inner.empty() ? "" : ".") + f.key;
         } else {
            inner += "[" + std::to_string(f.count - 1) + "]";
         }
      }
      return inner.empty() ? out : out + ", in '" + inner + "'";
   }

   std::string const& file_;
   std::string const& text_;
   std::vector<Frame> frames_;
};

std::string readAll(std::string const& file) {
   if (file == "-") {
      std::ostringstream os;
      os << std::cin.rdbuf();
      return os.str();
   }
   int const fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) throw ScenarioError{file + ": cannot be read: " + std::strerror(errno)};
   struct stat st {};
   if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
      ::close(fd);
      throw ScenarioError{file + ": is a directory"};
   }
   std::string text;
   char buffer[65536];
   for (;;) {
      ssize_t const n = ::read(fd, buffer, sizeof buffer);
      if (n == 0) break;
      if (n < 0) {
         if (errno == EINTR) continue;
         int const error = errno;
         ::close(fd);
         throw ScenarioError{file + ": cannot be read: " + std::strerror(error)};
      }
      text.append(buffer, static_cast<std::size_t>(n));
   }
   ::close(fd);
   return text;
}

} // namespace

Scenario parseScenarioText(std::string const& file, std::string const& text, LoadOverrides const& overrides) {
   JsonChecker checker(file, text);
   json::sax_parse(text, &checker);
   // The checker has refused everything the parser could throw for.
   return loadScenario(file, json::parse(text), overrides);
}

Scenario loadScenarioFile(std::string const& file, LoadOverrides const& overrides) {
   if (file.empty()) throw ScenarioError{"the scenario file name is empty"};
   return parseScenarioText(file == "-" ? "standard input" : file, readAll(file), overrides);
}

} // namespace UloNatSim
