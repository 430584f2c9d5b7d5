#include "src/edr/EventRule.h"

namespace zagent::edr {

EventType EventRule::GetEventType() const {
  switch (GetType()) {
    case ObjectType::Process:
      throw EventRuleException("Function not defined for neither process rule");
    case ObjectType::Network:
      throw EventRuleException("Function not defined for network rule");
    default:
      throw EventRuleException("Function not defined for file rule");
  }
}

EventTypes EventTypesOf(const EventRule& rule) {
  switch (rule.GetType()) {
    case ObjectType::File:
      return rule.GetFileActions();
    case ObjectType::Directory: {
      EventTypes types = rule.GetFileActions();
      types.insert(rule.GetDirectoryActions().begin(), rule.GetDirectoryActions().end());
      return types;
    }
    case ObjectType::Process:
      return rule.GetProcessActions();
    case ObjectType::Network:
      return rule.GetNetworkActions();
  }
  throw EventRuleException("Rule " + rule.GetId() + " has an unknown type");
}

}  // namespace zagent::edr
