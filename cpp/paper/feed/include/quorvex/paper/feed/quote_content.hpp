// The real-time quote messages the feed publishes: their topics and their msgpack bodies, in
// exactly the content layouts of the client's quote records (docs/protocol.md, sections 10
// and 11). A change here is a change of the wire contract.
//
// Threading: pure functions; safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "quorvex/paper/feed/quote_state.hpp"

namespace quorvex::paper {

// The topics one stream publishes on. QuoteV2 (the joined stock quote) exists for board-lot
// stocks only.
enum class QuoteTopic : std::uint8_t { TickV1, BidAskV1, QuoteV2, TickV0, BidAskV0 };
inline constexpr int kQuoteTopicCount = 5;
inline constexpr QuoteTopic kQuoteTopics[] = {QuoteTopic::TickV1, QuoteTopic::BidAskV1, QuoteTopic::QuoteV2,
                                              QuoteTopic::TickV0, QuoteTopic::BidAskV0};

bool publishes(Market market, QuoteTopic topic);
inline bool is_tick(QuoteTopic topic) { return topic == QuoteTopic::TickV1 || topic == QuoteTopic::TickV0; }

// The exchange component of a contract's quote topics: "TSE", "OTC", "OES", or "TFE" for
// futures and options.
std::string_view topic_exchange(const Contract& contract);

// The published topic, e.g. "TIC/v1/STK/D/TSE/2330"; `night` selects session "N".
// Untyped odd-lot topics end in "/ODDLOT". Empty when the market does not publish `topic`.
std::string quote_topic(QuoteTopic topic, Market market, bool night, const Contract& contract);

// What one message reports: the stream's state after a trade (or a change of its book).
struct QuoteFrame {
  const Contract* contract = nullptr;
  const QuoteState* state = nullptr;
  Timestamp ts = 0;         // the message's time
  QuoteBook book;           // the book as published, resting orders included
  QuoteBook previous_book;  // the stream's last published book: the diff volumes count from it
  Price underlying;         // futures and options: the underlying's last value
};

// The msgpack body of a message on `topic` of `market`, e.g. {"content": [...]}.
std::string encode_quote(QuoteTopic topic, Market market, const QuoteFrame& frame);

}  // namespace quorvex::paper
