#include "quorvex/paper/contract.hpp"

namespace quorvex::paper {

std::string_view to_text(SecurityType type) {
  switch (type) {
    case SecurityType::Index: return "IND";
    case SecurityType::Stock: return "STK";
    case SecurityType::Future: return "FUT";
    case SecurityType::Option: return "OPT";
  }
  return "";
}

std::string_view to_text(Exchange exchange) {
  switch (exchange) {
    case Exchange::TSE: return "TSE";
    case Exchange::OTC: return "OTC";
    case Exchange::OES: return "OES";
    case Exchange::TAIFEX: return "TAIFEX";
  }
  return "";
}

std::string_view to_text(OptionRight right) {
  switch (right) {
    case OptionRight::None: return "";
    case OptionRight::Call: return "C";
    case OptionRight::Put: return "P";
  }
  return "";
}

std::string_view to_text(DayTrade day_trade) {
  switch (day_trade) {
    case DayTrade::Yes: return "Yes";
    case DayTrade::OnlyBuy: return "OnlyBuy";
    case DayTrade::No: return "No";
  }
  return "";
}

std::optional<SecurityType> security_type_from_text(std::string_view text) {
  for (SecurityType t : kSecurityTypes) {
    if (to_text(t) == text) return t;
  }
  return std::nullopt;
}

}  // namespace quorvex::paper
