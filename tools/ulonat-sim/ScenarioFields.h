#pragma once
// Reading the fields of a scenario file's JSON objects, for the scenario
// loaders (Scenario.cpp and the loaders of each feature's events).

#include <cmath>
#include <set>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "sim/SimSystem.h"
#include "tools/ulonat-sim/Scenario.h"

namespace UloNatSim {

using nlohmann::json;

// Reads the fields of one JSON object, remembering where it is so that every
// complaint names the file, the event and the field.
class Fields {
 public:
   Fields(std::string file, std::string where, json const& object)
       : file_(std::move(file)), where_(std::move(where)), object_(object) {
      if (!object_.is_object()) fail("", "must be a JSON object");
   }

   [[noreturn]] void fail(std::string const& field, std::string const& what) const {
      std::string text = file_ + ": " + where_;
      if (!field.empty()) text += ", field '" + field + "'";
      throw ScenarioError{text + ": " + what};
   }

   std::string const& file() const { return file_; }
   std::string const& where() const { return where_; }
   bool has(char const* field) const { return object_.contains(field); }
   json const& raw(char const* field) const {
      used_.insert(field);
      if (!has(field)) fail(field, "missing");
      return object_.at(field);
   }

   std::string string(char const* field) const {
      json const& v = raw(field);
      if (!v.is_string()) fail(field, "must be a string");
      return v.get<std::string>();
   }
   std::string string(char const* field, std::string const& fallback) const {
      return has(field) ? string(field) : fallback;
   }
   bool boolean(char const* field) const {
      json const& v = raw(field);
      if (!v.is_boolean()) fail(field, "must be true or false");
      return v.get<bool>();
   }
   bool boolean(char const* field, bool fallback) const { return has(field) ? boolean(field) : fallback; }
   double number(char const* field, double min, double max) const {
      json const& v = raw(field);
      if (!v.is_number()) fail(field, "must be a number");
      double const d = v.get<double>();
      if (!(d >= min && d <= max)) {
         std::ostringstream os;
         os << "out of range (" << min << " to " << max << ")";
         fail(field, os.str());
      }
      return d;
   }
   Vor::U64 integer(char const* field, Vor::U64 min, Vor::U64 max) const {
      json const& v = raw(field);
      auto outOfRange = [&] {
         fail(field, "out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")");
      };
      if (v.is_number_float()) {
         // An integer beyond 64 bits is read as a double: say what is wrong with it.
         double const d = v.get<double>();
         if (std::trunc(d) == d && std::fabs(d) >= 18446744073709551616.0) outOfRange();
         fail(field, "must be an integer");
      }
      if (!v.is_number_integer() && !v.is_number_unsigned()) fail(field, "must be an integer");
      if (v.is_number_integer() && v.get<long long>() < 0) {
         fail(field, "out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")");
      }
      Vor::U64 const n = v.get<Vor::U64>();
      if (n < min || n > max) {
         fail(field, "out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")");
      }
      return n;
   }
   Vor::U64 integer(char const* field, Vor::U64 min, Vor::U64 max, Vor::U64 fallback) const {
      return has(field) ? integer(field, min, max) : fallback;
   }
   std::string intf(char const* field) const {
      std::string const name = string(field);
      if (!Lumet::IntfId::parse(name)) fail(field, "'" + name + "' is not an interface name");
      return name;
   }
   Lumet::IpAndPort ipAndPort(char const* field) const {
      std::string const text = string(field);
      auto v = Sim::parseIpAndPort(text);
      if (!v) fail(field, "'" + text + "' is not an address or address:port");
      return *v;
   }
   Lumet::IpAddr ip(char const* field) const {
      std::string const text = string(field);
      auto v = Lumet::IpAddr::parse(text);
      if (!v) fail(field, "'" + text + "' is not an IPv4 address");
      return *v;
   }
   // Fields present that nobody read: a typo would otherwise pass silently.
   void noOthers() const {
      for (auto const& [k, v] : object_.items()) {
         if (!used_.count(k)) fail(k, "unknown field");
      }
   }
   void used(char const* field) const { used_.insert(field); }

 private:
   std::string file_;
   std::string where_;
   json const& object_;
   mutable std::set<std::string> used_;
};

} // namespace UloNatSim
