#include "mail/ImapClient.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <ctime>

#include <openssl/evp.h>

#include "mail/ServerConnection.h"
#include "mail/StartTlsNegotiation.h"

namespace parlova {

namespace {

using Clock = std::chrono::steady_clock;
using Outcome = ImapResult::Outcome;

// A slow line gets a second for every 64 KiB of a message on top of the
// silence the time-out allows.
constexpr size_t kBytesPerSecond = 64 * 1024;

ImapResult result(Outcome outcome, std::string detail = {}) { return {outcome, std::move(detail)}; }

// A string as IMAP's quoted form, or nothing when it holds what a quoted
// string cannot carry (line ends, NUL, bytes beyond ASCII).
std::optional<std::string> quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == 0 || byte == '\r' || byte == '\n' || byte >= 0x80)
      return std::nullopt;
    if (c == '"' || c == '\\')
      quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

std::string base64(std::string_view bytes) {
  std::string encoded(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(encoded.data()),
                                     reinterpret_cast<const unsigned char *>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  encoded.resize(static_cast<size_t>(std::max(length, 0)));
  return encoded;
}

// UTF-16 code units of UTF-8 text; a byte that begins no character is
// U+FFFD.
std::u16string utf16Of(std::string_view text) {
  std::u16string units;
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
    char32_t point = length == 1 ? lead : length == 2 ? lead & 0x1F : length == 3 ? lead & 0x0F : lead & 0x07;
    bool whole = length > 0 && i + length <= text.size();
    for (size_t k = 1; whole && k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      whole = next >> 6 == 2;
      point = point << 6 | (next & 0x3F);
    }
    static constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (!whole || point < kLeast[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
      units += u'\uFFFD';
      ++i;
      continue;
    }
    if (point >= 0x10000) {
      units += static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
      units += static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
    } else {
      units += static_cast<char16_t>(point);
    }
    i += length;
  }
  return units;
}

// A folder name in IMAP's modified UTF-7 (RFC 3501 5.1.3): printable ASCII
// as it is ("&" as "&-"), every other run as its UTF-16 in base64 with ","
// for "/", between "&" and "-".
std::string modifiedUtf7(std::string_view name) {
  static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+,";
  const std::u16string units = utf16Of(name);
  std::string encoded;
  for (size_t i = 0; i < units.size();) {
    if (units[i] >= 0x20 && units[i] <= 0x7E) {
      encoded += static_cast<char>(units[i]);
      if (units[i] == u'&')
        encoded += '-';
      ++i;
      continue;
    }
    std::string bytes;
    for (; i < units.size() && (units[i] < 0x20 || units[i] > 0x7E); ++i) {
      bytes += static_cast<char>(units[i] >> 8);
      bytes += static_cast<char>(units[i] & 0xFF);
    }
    encoded += '&';
    unsigned bits = 0, held = 0;
    for (const char byte : bytes) {
      held = held << 8 | static_cast<unsigned char>(byte);
      for (bits += 8; bits >= 6; bits -= 6)
        encoded += kDigits[(held >> (bits - 6)) & 0x3F];
    }
    if (bits > 0)
      encoded += kDigits[(held << (6 - bits)) & 0x3F];
    encoded += '-';
  }
  return encoded;
}

// The folder's separator in the answer to LIST "" "": `* LIST (\Noselect)
// "." ""`; "/" when the answer names none.
std::string separatorIn(const std::vector<std::string> &untagged) {
  for (const std::string &line : untagged) {
    if (!line.starts_with("* LIST "))
      continue;
    const size_t close = line.find(") ");
    if (close == std::string::npos || line.compare(close + 2, 1, "\"") != 0)
      continue;
    size_t at = close + 3;
    if (at < line.size() && line[at] == '\\')
      ++at;
    if (at < line.size())
      return line.substr(at, 1);
  }
  return "/";
}

// IMAP's date-time in UTC: "17-Jul-1996 02:44:25 +0000".
std::string internalDate(double secondsSince1970) {
  static constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto seconds = static_cast<std::time_t>(secondsSince1970);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  std::snprintf(text, sizeof text, "%02d-%s-%04d %02d:%02d:%02d +0000", utc.tm_mday, kMonths[utc.tm_mon],
                utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return text;
}

// "1:4,7,9:12" for the numbers, in pieces short enough for any server's
// command line.
std::vector<std::string> uidSets(std::vector<unsigned long> uids) {
  std::sort(uids.begin(), uids.end());
  std::vector<std::string> sets(1);
  for (size_t i = 0; i < uids.size();) {
    size_t last = i;
    while (last + 1 < uids.size() && uids[last + 1] <= uids[last] + 1)
      ++last;
    if (sets.back().size() > 4000)
      sets.emplace_back();
    sets.back() += (sets.back().empty() ? "" : ",") + std::to_string(uids[i]) +
                   (uids[last] != uids[i] ? ":" + std::to_string(uids[last]) : std::string());
    i = last + 1;
  }
  return sets;
}

// Every name in `text` that begins with `prefix` and runs on in the
// characters a Message-ID's name part is made of here.
void collectNames(std::string_view text, std::string_view prefix, std::unordered_set<std::string> &names) {
  for (size_t at = text.find(prefix); at != std::string_view::npos; at = text.find(prefix, at + 1)) {
    size_t end = at + prefix.size();
    while (end < text.size() && (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '.' ||
                                 text[end] == '-' || text[end] == '_'))
      ++end;
    names.emplace(text.substr(at, end - at));
  }
}

// The message with every line ended by CRLF, as APPEND takes it; a copy
// only when some line is not.
std::string_view withCrlf(const std::vector<uint8_t> &bytes, std::string &copy) {
  const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  bool bare = false;
  for (size_t at = text.find('\n'); at != std::string_view::npos && !bare; at = text.find('\n', at + 1))
    bare = at == 0 || text[at - 1] != '\r';
  if (!bare)
    return text;
  copy.reserve(text.size() + text.size() / 32);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r'))
      copy += '\r';
    copy += text[i];
  }
  return copy;
}

} // namespace

ImapClient::~ImapClient() {
  if (socket_)
    sendAll(socket_.get(), "z LOGOUT\r\n");
  socket_.reset();
  tunnel_.reset(); // after this end of the relay is closed
}

void ImapClient::drop() {
  replies_.reset();
  socket_.reset();
  tunnel_.reset();
  capabilities_.clear();
  stored_.clear();
  sendFailed_ = false;
}

bool ImapClient::offers(std::string_view capability) const {
  return capabilities_.find(" " + std::string(capability) + " ") != std::string::npos;
}

// "[CAPABILITY IMAP4rev1 LITERAL+ ...]" in a greeting or a tagged OK, or an
// untagged "* CAPABILITY ..." line.
void ImapClient::noteCapabilities(std::string_view response) {
  std::string upper(response);
  for (char &c : upper)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  size_t start = upper.find("[CAPABILITY ");
  size_t end = start == std::string::npos ? std::string::npos : upper.find(']', start);
  if (start != std::string::npos && end != std::string::npos) {
    start += 12;
  } else if (upper.starts_with("* CAPABILITY ")) {
    start = 13;
    end = upper.size();
  } else {
    return;
  }
  capabilities_ = " " + upper.substr(start, end - start) + " ";
}

std::string ImapClient::send(std::string_view command) {
  const std::string tag = "a" + std::to_string(++nextTag_);
  if (!sendAll(socket_.get(), tag + " " + std::string(command) + "\r\n"))
    sendFailed_ = true;
  return tag;
}

std::variant<std::string, ImapReplies::Failure> ImapClient::nextResponse(size_t bytesSent) {
  if (sendFailed_)
    return ImapReplies::Failure::Closed;
  const auto silence = std::chrono::seconds(mailTimeoutSeconds());
  const auto deadline = Clock::now() + silence + std::chrono::seconds(bytesSent / kBytesPerSecond);
  return replies_->next({silence, deadline, keepGoing_});
}

std::variant<ImapClient::Answer, ImapReplies::Failure> ImapClient::answerTo(const std::string &tag,
                                                                            size_t bytesSent) {
  Answer answer;
  while (true) {
    auto response = nextResponse(bytesSent);
    if (const auto *failure = std::get_if<ImapReplies::Failure>(&response))
      return *failure;
    std::string &line = std::get<std::string>(response);
    noteCapabilities(line);
    if (!line.starts_with(tag + " ")) {
      // A server that says goodbye closes the connection next.
      if (line.starts_with("* BYE"))
        return ImapReplies::Failure::Closed;
      answer.untagged.push_back(std::move(line));
      continue;
    }
    answer.said = line.substr(tag.size() + 1);
    answer.status = answer.said.substr(0, answer.said.find(' '));
    for (char &c : answer.status)
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return answer;
  }
}

ImapResult ImapClient::ended(ImapReplies::Failure failure) {
  drop();
  switch (failure) {
  case ImapReplies::Failure::Closed:
    return result(Outcome::Unreachable);
  case ImapReplies::Failure::TimedOut:
    return result(Outcome::TimedOut);
  case ImapReplies::Failure::Stopped:
    return result(Outcome::Stopped);
  case ImapReplies::Failure::TooLong:
    return result(Outcome::NotStored, "the server's answer was longer than any answer is");
  }
  return result(Outcome::Unreachable);
}

ImapClient::Ended ImapClient::begin() {
  const unsigned timeout = mailTimeoutSeconds();
  if (server_.security == MailSecurity::None) {
    socket_ = connectToServer(server_.host, server_.port, timeout, Clock::now() + std::chrono::seconds(timeout));
  } else {
    auto opened = TlsTunnel::open({server_.security, MailProtocol::Imap, server_.host, server_.port, server_.caFile,
                                   server_.verify, timeout, server_.log});
    if (auto *failure = std::get_if<TlsTunnel::Failure>(&opened))
      return result(failure->unreachable ? Outcome::Unreachable : Outcome::NotSecured, failure->reason);
    tunnel_ = std::move(std::get<std::unique_ptr<TlsTunnel>>(opened));
    socket_ = connectToServer("127.0.0.1", tunnel_->localPort(), timeout, Clock::now() + std::chrono::seconds(timeout));
  }
  if (!socket_) {
    drop();
    return result(Outcome::Unreachable);
  }
  replies_.emplace(socket_.get());
  auto greeting = nextResponse();
  if (const auto *failure = std::get_if<ImapReplies::Failure>(&greeting))
    return ended(*failure);
  const std::string &hello = std::get<std::string>(greeting);
  if (!hello.starts_with("* OK") && !hello.starts_with("* PREAUTH")) {
    drop();
    return result(Outcome::Unreachable);
  }
  noteCapabilities(hello);
  if (!hello.starts_with("* PREAUTH"))
    if (auto failed = logIn())
      return failed;
  if (auto failed = findFolder())
    return failed;
  return listStored();
}

ImapClient::Ended ImapClient::logIn() {
  if (capabilities_.empty()) {
    auto listed = answerTo(send("CAPABILITY"));
    if (const auto *failure = std::get_if<ImapReplies::Failure>(&listed))
      return ended(*failure);
  }
  std::string tag;
  if (offers("AUTH=PLAIN")) {
    // Any name and password, in one round trip where the server takes the
    // credentials with the command (SASL-IR).
    const std::string credentials = base64(std::string(1, '\0') + login_.username + '\0' + login_.password);
    if (offers("SASL-IR")) {
      tag = send("AUTHENTICATE PLAIN " + credentials);
    } else {
      tag = send("AUTHENTICATE PLAIN");
      auto goAhead = nextResponse();
      if (const auto *failure = std::get_if<ImapReplies::Failure>(&goAhead))
        return ended(*failure);
      sendFailed_ = sendFailed_ || !sendAll(socket_.get(), credentials + "\r\n");
    }
  } else {
    const auto user = quoted(login_.username);
    const auto password = quoted(login_.password);
    if (offers("LOGINDISABLED"))
      return result(Outcome::LoginRefused,
                    "the server allows no login over this connection (emailSecurity starttls or tls would)");
    if (!user || !password)
      return result(Outcome::LoginRefused, "the server offers no login that can carry this user name and password");
    tag = send("LOGIN " + *user + " " + *password);
  }
  auto answer = answerTo(tag);
  if (const auto *failure = std::get_if<ImapReplies::Failure>(&answer))
    return ended(*failure);
  const Answer &loggedIn = std::get<Answer>(answer);
  if (loggedIn.status != "OK")
    return result(Outcome::LoginRefused, loggedIn.said);
  // A server that names its capabilities anew after the login does so in
  // that answer; one that does not may have changed them all the same.
  if (loggedIn.said.find("[CAPABILITY ") == std::string::npos) {
    capabilities_.clear();
    auto listed = answerTo(send("CAPABILITY"));
    if (const auto *failure = std::get_if<ImapReplies::Failure>(&listed))
      return ended(*failure);
  }
  return std::nullopt;
}

ImapClient::Ended ImapClient::findFolder() {
  auto listed = answerTo(send("LIST \"\" \"\""));
  if (const auto *failure = std::get_if<ImapReplies::Failure>(&listed))
    return ended(*failure);
  const std::string separator = separatorIn(std::get<Answer>(listed).untagged);
  std::string name;
  for (size_t start = 0; start <= login_.folder.size();) {
    const size_t slash = std::min(login_.folder.find('/', start), login_.folder.size());
    name += (name.empty() ? "" : separator) + login_.folder.substr(start, slash - start);
    start = slash + 1;
  }
  mailbox_ = *quoted(modifiedUtf7(name));

  for (bool created = false;;) {
    auto selected = answerTo(send("SELECT " + mailbox_));
    if (const auto *failure = std::get_if<ImapReplies::Failure>(&selected))
      return ended(*failure);
    const Answer &answer = std::get<Answer>(selected);
    if (answer.status == "OK")
      return std::nullopt;
    if (created)
      return result(Outcome::NotStored, answer.said);
    auto made = answerTo(send("CREATE " + mailbox_));
    if (const auto *failure = std::get_if<ImapReplies::Failure>(&made))
      return ended(*failure);
    if (std::get<Answer>(made).status != "OK")
      return result(Outcome::FolderNotCreated, std::get<Answer>(made).said);
    created = true;
  }
}

ImapClient::Ended ImapClient::listStored() {
  // Subscribed, so that mail programs which show only subscribed folders
  // show it; sent with the search, whose answer is the one waited for.
  const std::string subscribe = send("SUBSCRIBE " + mailbox_);
  const std::string search = send("UID SEARCH HEADER Message-ID " + *quoted(login_.messageIdPrefix));
  for (const std::string &tag : {subscribe, search}) {
    auto answer = answerTo(tag);
    if (const auto *failure = std::get_if<ImapReplies::Failure>(&answer))
      return ended(*failure);
    if (tag == subscribe)
      continue;
    const Answer &found = std::get<Answer>(answer);
    if (found.status != "OK")
      return result(Outcome::NotStored, found.said);
    std::vector<unsigned long> uids;
    for (const std::string &line : found.untagged) {
      if (!line.starts_with("* SEARCH"))
        continue;
      for (size_t at = 8; at < line.size();) {
        char *end = nullptr;
        const unsigned long uid = std::strtoul(line.c_str() + at, &end, 10);
        if (end == line.c_str() + at) {
          ++at;
          continue;
        }
        uids.push_back(uid);
        at = static_cast<size_t>(end - line.c_str());
      }
    }
    if (uids.empty())
      return std::nullopt;
    std::vector<std::string> fetches;
    for (const std::string &set : uidSets(uids))
      fetches.push_back(send("UID FETCH " + set + " (BODY.PEEK[HEADER.FIELDS (MESSAGE-ID)])"));
    for (const std::string &fetch : fetches) {
      auto fetched = answerTo(fetch);
      if (const auto *failure = std::get_if<ImapReplies::Failure>(&fetched))
        return ended(*failure);
      if (std::get<Answer>(fetched).status != "OK")
        return result(Outcome::NotStored, std::get<Answer>(fetched).said);
      for (const std::string &line : std::get<Answer>(fetched).untagged)
        collectNames(line, login_.messageIdPrefix, stored_);
    }
  }
  return std::nullopt;
}

ImapResult ImapClient::append(const ImapMessage &message) {
  std::string copy;
  const std::string_view bytes = withCrlf(message.bytes, copy);
  const bool withoutGoAhead = offers("LITERAL+") || (offers("LITERAL-") && bytes.size() <= 4096);
  const std::string tag = send("APPEND " + mailbox_ + " (\\Seen) \"" + internalDate(message.internalDate) + "\" {" +
                               std::to_string(bytes.size()) + (withoutGoAhead ? "+}" : "}"));
  if (!withoutGoAhead) {
    auto goAhead = nextResponse();
    if (const auto *failure = std::get_if<ImapReplies::Failure>(&goAhead))
      return ended(*failure);
    const std::string &line = std::get<std::string>(goAhead);
    if (!line.starts_with("+")) {
      const std::string said = line.starts_with(tag + " ") ? line.substr(tag.size() + 1) : line;
      return result(Outcome::NotStored, said);
    }
  }
  sendFailed_ = sendFailed_ || !sendAll(socket_.get(), bytes) || !sendAll(socket_.get(), "\r\n");
  auto answer = answerTo(tag, bytes.size());
  if (const auto *failure = std::get_if<ImapReplies::Failure>(&answer))
    return ended(*failure);
  const Answer &appended = std::get<Answer>(answer);
  if (appended.status != "OK")
    return result(Outcome::NotStored, appended.said);
  stored_.insert(message.messageIdKey);
  return result(Outcome::Stored);
}

ImapResult ImapClient::store(const ImapMessage &message, const std::function<bool()> &keepGoing) {
  keepGoing_ = keepGoing;
  const bool kept = static_cast<bool>(socket_);
  for (bool again = false;; again = true) {
    if (!socket_) {
      if (auto failed = begin()) {
        drop();
        return *failed;
      }
    }
    if (stored_.contains(message.messageIdKey))
      return result(again ? Outcome::Stored : Outcome::AlreadyThere);
    ImapResult appended = append(message);
    // A server drops a session it finds idle, or restarts: the message is
    // offered once more on a new one, which lists first whether this one
    // arrived after all.
    if (appended.outcome != Outcome::Unreachable || !kept || again)
      return appended;
    if (server_.log)
      server_.log("The IMAP server closed the connection; connecting again.");
  }
}

} // namespace parlova

extern "C" __attribute__((visibility("default"))) parlova::ImapSession *
parlovaOpenImapSession(const parlova::MailServer *server, const parlova::ImapLogin *login) {
  return new parlova::ImapClient(*server, *login);
}
