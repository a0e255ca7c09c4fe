#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// How answers and events go out: properly, or with one of the faults that can be asked for.
namespace till {

/// A fault as it was asked for: its word and, where the word takes one, its number.
struct Misbehaviour {
  std::string word = "none";
  std::size_t number = 0;

  std::string text() const;
};

/// A word and what it does, for the help text.
struct MisbehaviourHelp {
  std::string_view usage;
  std::string_view effect;
};
const std::vector<MisbehaviourHelp>& answerMisbehaviours();
const std::vector<MisbehaviourHelp>& eventMisbehaviours();
const std::vector<MisbehaviourHelp>& streamMisbehaviours();

/// "slow 500" and its like. Throws std::invalid_argument with a message for the user.
Misbehaviour parseMisbehaviour(std::string_view text, const std::vector<MisbehaviourHelp>& known);

/// One answer, or one send to a stream of events, on its way: what is sent, in which pieces, and
/// what happens to the connection then.
struct Delivery {
  enum class End { Close, Hold, Reset };

  std::string bytes;
  std::size_t pieceSize = 0; ///< 0: all in one send
  std::chrono::milliseconds before{0};
  std::chrono::milliseconds between{0};
  End end = End::Close;
};

/// The faults that replace the document itself (error, huge) are not applied here.
Delivery planAnswer(const Misbehaviour& misbehaviour, std::string_view document);

/// The datagrams that one event becomes.
std::vector<std::string> planEvent(const Misbehaviour& misbehaviour, std::string_view document);

/// How many events a stream gets at once.
std::size_t streamBatch(const Misbehaviour& misbehaviour);
/// True for a fault that ends the connection: it befalls one event, or the next connection would
/// go the same way.
bool endsStream(const Misbehaviour& misbehaviour);
/// What a stream gets for that many event documents.
Delivery planStream(const Misbehaviour& misbehaviour, const std::vector<std::string>& documents);

} // namespace till
