// Leaf values of an interface; see Values.h.
#include "Values.h"

#include "ShowFormat.h"

namespace Gnmi {

namespace {

Value text(std::string s) {
   Value v;
   v.kind = Value::Kind::text;
   v.text = std::move(s);
   return v;
}
Value number(uint64_t n) {
   Value v;
   v.kind = Value::Kind::number;
   v.number = n;
   return v;
}
// The model's mtu leaves are 16 bits wide: a larger MTU (a loopback's
// 65536) has no true value there, so the leaf is left out, never clipped.
Value mtu(uint32_t n) { return n <= 0xffff ? number(n) : Value(); }
Value boolean(bool b) {
   Value v;
   v.kind = Value::Kind::boolean;
   v.number = b;
   return v;
}

char const * operName(Interface::IntfOperStatus s) {
   using S = Interface::IntfOperStatus;
   switch (s) {
   case S::intfOperUp: return "UP";
   case S::intfOperDown: return "DOWN";
   case S::intfOperTesting: return "TESTING";
   case S::intfOperDormant: return "DORMANT";
   case S::intfOperNotPresent: return "NOT_PRESENT";
   case S::intfOperLowerLayerDown: return "LOWER_LAYER_DOWN";
   default: return "UNKNOWN";
   }
}

} // namespace

std::string interfaceType(Zenet::IntfId id) {
   std::string name = id.stringValue().str();
   std::string family = name.substr(0, name.find_first_of("0123456789"));
   char const * t = "other";
   if (Zenet::GenericIntfId::isSubIntf(id)) {
      t = "l2vlan";
   } else if (family == "Ethernet" || family == "Management") {
      t = "ethernetCsmacd";
   } else if (family == "Loopback") {
      t = "softwareLoopback";
   } else if (family == "Vlan") {
      t = "l3ipvlan";
   } else if (family == "Tunnel" || family == "GreTunnel" || family == "Vxlan") {
      t = "tunnel";
   }
   return std::string("iana-if-type:") + t;
}

IntfValues stateValues(Zenet::IntfId id, Interface::IntfStatus const & status, Interface::IntfConfig const * config) {
   IntfValues v;
   v.name = id.stringValue().str();
   v[Leaf::name] = v[Leaf::configName] = v[Leaf::stateName] = text(v.name);
   v[Leaf::stateType] = text(interfaceType(id));
   v[Leaf::stateMtu] = mtu(status.mtu());
   v[Leaf::operStatus] = text(operName(status.operStatus()));
   double changed = status.operStatusChange().time();
   if (changed > 0) v[Leaf::lastChange] = number(uint64_t(changed * 1e9));
   if (config) {
      v[Leaf::configMtu] = mtu(config->mtu());
      if (!config->description().view().empty()) {
         v[Leaf::configDescription] = v[Leaf::stateDescription] = text(config->description().str());
      }
      // The configured administrative state; unset means the agent leaves
      // the device as it is, so the model does not know it.
      auto admin = config->adminEnabledState();
      if (admin != Interface::IntfEnabledState::unknownEnabledState) {
         bool up = admin == Interface::IntfEnabledState::enabled;
         v[Leaf::configEnabled] = v[Leaf::stateEnabled] = boolean(up);
         v[Leaf::adminStatus] = text(up ? "UP" : "DOWN");
      }
   }
   return v;
}

void setCounters(IntfValues & v, AgentTree::Counters const & c) {
   for (unsigned i = 0; i < counterCount; ++i) {
      Leaf l = Leaf(firstCounter + i);
      v[l] = c.present & bit(l) ? number(c.value[i]) : Value();
   }
   v.countersNs = c.sampledNs;
}

std::string jsonScalar(Leaf l, Value const & v) {
   switch (leafInfo(l).type) {
   case LeafType::boolean: return v.number ? "true" : "false";
   case LeafType::uint16: return std::to_string(v.number);
   case LeafType::uint64: return "\"" + std::to_string(v.number) + "\"";
   default: return IntfApp::jsonString(v.text);
   }
}

} // namespace Gnmi
