#include "quorvex/paper/order.hpp"

#include <array>
#include <utility>

namespace quorvex::paper {
namespace {

template <typename Enum, std::size_t N>
std::optional<Enum> from_text(const std::array<std::pair<Enum, std::string_view>, N>& names, std::string_view text) {
  for (const auto& [value, name] : names) {
    if (name == text) return value;
  }
  return std::nullopt;
}

template <typename Enum, std::size_t N>
std::string_view name_of(const std::array<std::pair<Enum, std::string_view>, N>& names, Enum value) {
  for (const auto& [v, name] : names) {
    if (v == value) return name;
  }
  return "";
}

constexpr std::array<std::pair<Side, std::string_view>, 2> kSides{{{Side::Buy, "Buy"}, {Side::Sell, "Sell"}}};
constexpr std::array<std::pair<PriceType, std::string_view>, 3> kPriceTypes{
    {{PriceType::Limit, "LMT"}, {PriceType::Market, "MKT"}, {PriceType::MarketRange, "MKP"}}};
constexpr std::array<std::pair<OrderType, std::string_view>, 3> kOrderTypes{
    {{OrderType::ROD, "ROD"}, {OrderType::IOC, "IOC"}, {OrderType::FOK, "FOK"}}};
constexpr std::array<std::pair<Board, std::string_view>, 4> kBoards{
    {{Board::Common, "Common"}, {Board::Odd, "Odd"}, {Board::IntradayOdd, "IntradayOdd"}, {Board::Fixing, "Fixing"}}};
constexpr std::array<std::pair<Status, std::string_view>, 5> kStatuses{{{Status::Submitted, "Submitted"},
                                                                        {Status::PartFilled, "PartFilled"},
                                                                        {Status::Filled, "Filled"},
                                                                        {Status::Cancelled, "Cancelled"},
                                                                        {Status::Failed, "Failed"}}};
constexpr std::array<std::pair<OrderOperation, std::string_view>, 4> kOperations{
    {{OrderOperation::Place, "New"},
     {OrderOperation::Cancel, "Cancel"},
     {OrderOperation::ChangePrice, "UpdatePrice"},
     {OrderOperation::ReduceQuantity, "UpdateQty"}}};
constexpr std::array<std::pair<OrderEventKind, std::string_view>, 6> kEventKinds{
    {{OrderEventKind::Accepted, "Accepted"},
     {OrderEventKind::Filled, "Filled"},
     {OrderEventKind::Cancelled, "Cancelled"},
     {OrderEventKind::Refused, "Refused"},
     {OrderEventKind::PriceChanged, "PriceChanged"},
     {OrderEventKind::QuantityReduced, "QuantityReduced"}}};

}  // namespace

std::string order_seqno(OrderId id) {
  std::string text = std::to_string(id % 1000000);
  return std::string(6 - text.size(), '0') + text;
}

std::string order_ordno(OrderId id) {
  static constexpr char kDigits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  std::string text(5, '0');
  for (int i = 4; i >= 0; --i, id /= 36) text[static_cast<std::size_t>(i)] = kDigits[id % 36];
  return text;
}

std::string_view to_text(Side side) { return name_of(kSides, side); }
std::string_view to_text(PriceType type) { return name_of(kPriceTypes, type); }
std::string_view to_text(OrderType type) { return name_of(kOrderTypes, type); }
std::string_view to_text(Board board) { return name_of(kBoards, board); }
std::string_view to_text(Status status) { return name_of(kStatuses, status); }
std::string_view to_text(OrderOperation operation) { return name_of(kOperations, operation); }
std::string_view to_text(OrderEventKind kind) { return name_of(kEventKinds, kind); }
std::optional<Side> side_from_text(std::string_view text) { return from_text(kSides, text); }
std::optional<PriceType> price_type_from_text(std::string_view text) { return from_text(kPriceTypes, text); }
std::optional<OrderType> order_type_from_text(std::string_view text) { return from_text(kOrderTypes, text); }
std::optional<Board> board_from_text(std::string_view text) { return from_text(kBoards, text); }

}  // namespace quorvex::paper
