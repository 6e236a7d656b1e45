#include "quorvex/paper/order.hpp"

#include "enum_text.hpp"

namespace quorvex::paper {
namespace {

constexpr EnumNames<Side, 2> kSides{{{Side::Buy, "Buy"}, {Side::Sell, "Sell"}}};
constexpr EnumNames<PriceType, 3> kPriceTypes{
    {{PriceType::Limit, "LMT"}, {PriceType::Market, "MKT"}, {PriceType::MarketRange, "MKP"}}};
constexpr EnumNames<OrderType, 3> kOrderTypes{
    {{OrderType::ROD, "ROD"}, {OrderType::IOC, "IOC"}, {OrderType::FOK, "FOK"}}};
constexpr EnumNames<Board, 4> kBoards{{{Board::Common, "Common"},
                                       {Board::Odd, "Odd"},
                                       {Board::IntradayOdd, "IntradayOdd"},
                                       {Board::Fixing, "Fixing"}}};
constexpr EnumNames<Status, 5> kStatuses{{{Status::Submitted, "Submitted"},
                                          {Status::PartFilled, "PartFilled"},
                                          {Status::Filled, "Filled"},
                                          {Status::Cancelled, "Cancelled"},
                                          {Status::Failed, "Failed"}}};
constexpr EnumNames<OrderOperation, 4> kOperations{{{OrderOperation::Place, "New"},
                                                    {OrderOperation::Cancel, "Cancel"},
                                                    {OrderOperation::ChangePrice, "UpdatePrice"},
                                                    {OrderOperation::ReduceQuantity, "UpdateQty"}}};
constexpr EnumNames<OrderEventKind, 6> kEventKinds{{{OrderEventKind::Accepted, "Accepted"},
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
