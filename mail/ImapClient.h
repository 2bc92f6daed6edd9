// The IMAP session spoken here rather than through the mail framework: the
// framework sends one command at a time, waits for the server's go-ahead
// before every message's bytes and finds a message by asking for it
// alone, which over a distant server made a round trip count of fifteen a
// chat. Here the folder's messages are listed once a session and a message
// goes out with its bytes in one round trip where the server takes
// literals without a go-ahead (LITERAL+).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <variant>
#include <vector>

#include "mail/ImapReplies.h"
#include "mail/ImapSession.h"
#include "mail/TlsTunnel.h"
#include "platform/FileDescriptor.h"

namespace parlova {

class ImapClient final : public ImapSession {
public:
  ImapClient(MailServer server, ImapLogin login) : server_(std::move(server)), login_(std::move(login)) {}
  ~ImapClient() override;
  ImapClient(const ImapClient &) = delete;
  ImapClient &operator=(const ImapClient &) = delete;

  ImapResult store(const ImapMessage &message, const std::function<bool()> &keepGoing) override;

private:
  // A tagged answer and the untagged responses before it.
  struct Answer {
    std::string status; // OK, NO or BAD
    std::string said;   // the tagged line without its tag
    std::vector<std::string> untagged;
  };
  // Nothing while the exchange goes on; the result once it has ended.
  using Ended = std::optional<ImapResult>;

  Ended begin();
  Ended logIn();
  Ended findFolder();
  Ended listStored();
  ImapResult append(const ImapMessage &message);

  std::string send(std::string_view command);
  std::variant<Answer, ImapReplies::Failure> answerTo(const std::string &tag, size_t bytesSent = 0);
  std::variant<std::string, ImapReplies::Failure> nextResponse(size_t bytesSent = 0);
  ImapResult ended(ImapReplies::Failure failure);
  bool offers(std::string_view capability) const;
  void noteCapabilities(std::string_view response);
  void drop();

  MailServer server_;
  ImapLogin login_;
  std::function<bool()> keepGoing_;
  std::unique_ptr<TlsTunnel> tunnel_;
  FileDescriptor socket_;
  std::optional<ImapReplies> replies_;
  bool sendFailed_ = false;
  unsigned nextTag_ = 0;
  std::string capabilities_; // upper case, each word between spaces
  std::string mailbox_;      // the folder's name as a quoted IMAP string
  std::unordered_set<std::string> stored_;
};

} // namespace parlova
