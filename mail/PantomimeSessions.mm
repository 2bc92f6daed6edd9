// The Pantomime side of the SMTP and IMAP sessions, built into the mail
// module. Objective-C stays in this file.
#include "mail/ImapSession.h"
#include "mail/SmtpSession.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <deque>
#include <optional>
#include <string_view>

#import <Foundation/Foundation.h>
#import <Pantomime/CWConstants.h>
#import <Pantomime/CWFlags.h>
#import <Pantomime/CWIMAPFolder.h>
#import <Pantomime/CWIMAPStore.h>
#import <Pantomime/CWInternetAddress.h>
#import <Pantomime/CWMIMEMultipart.h>
#import <Pantomime/CWMessage.h>
#import <Pantomime/CWPart.h>
#import <Pantomime/CWSMTP.h>

// Receives the framework's callbacks and watches the connection: GNUstep's
// Pantomime never reports a server that stops answering, so a silence
// longer than the time-out is reported here as the framework's time-out.
@interface ParlovaSmtpDelegate : NSObject {
@public
  parlova::SmtpSessionDelegate *delegate;
  NSTimeInterval lastActivity;
  NSTimeInterval startedAt;
  NSTimeInterval timeout;
  BOOL finished;
}
- (void)watch:(NSTimer *)timer;
@end

@implementation ParlovaSmtpDelegate
- (BOOL)finish {
  if (finished || !delegate)
    return NO;
  finished = YES;
  return YES;
}
- (void)authenticationCompleted:(NSNotification *)notification {
  lastActivity = [NSDate timeIntervalSinceReferenceDate];
  if (delegate && !finished)
    delegate->authenticationCompleted();
}
- (void)authenticationFailed:(NSNotification *)notification {
  if ([self finish])
    delegate->authenticationFailed();
}
- (void)messageSent:(NSNotification *)notification {
  if ([self finish])
    delegate->messageSent();
}
- (void)messageNotSent:(NSNotification *)notification {
  if ([self finish])
    delegate->messageNotSent();
}
- (void)connectionTimedOut:(NSNotification *)notification {
  if ([self finish])
    delegate->connectionTimedOut();
}
// The other end closed (the relay does when the server drops the line):
// nothing more will come, so the time-out need not be waited for.
- (void)connectionLost:(NSNotification *)notification {
  [self connectionTimedOut:notification];
}
- (void)service:(CWService *)service receivedData:(NSData *)data {
  lastActivity = [NSDate timeIntervalSinceReferenceDate];
}
- (void)service:(CWService *)service sentData:(NSData *)data {
  lastActivity = [NSDate timeIntervalSinceReferenceDate];
}
- (void)watch:(NSTimer *)timer {
  // Silence, or the whole exchange taking longer than the same time: a
  // server that trickles a byte now and then must not hold the run.
  const NSTimeInterval now = [NSDate timeIntervalSinceReferenceDate];
  if (now - lastActivity > timeout || now - startedAt > timeout)
    [self connectionTimedOut:nil];
}
@end

// GCC runs no C++ constructors for Objective-C fields, so the callback
// stays on the C++ side and the target only points at it.
@interface ParlovaTimerTarget : NSObject {
@public
  const std::function<void()> *fired;
}
- (void)fire:(NSTimer *)timer;
@end

@implementation ParlovaTimerTarget
- (void)fire:(NSTimer *)timer {
  if (fired && *fired)
    (*fired)();
}
@end

namespace parlova {

namespace {

// The framework writes diagnostics of its own through NSLog ("AUTHENTICATION_FAILED: |LOGIN|"), in
// a form that is not the program's log line; what they tell, the program logs
// in its own words.
void dropFrameworkLog(NSString *) {}
__attribute__((constructor)) void quietFramework() { _NSLog_printf_handler = &dropFrameworkLog; }

NSString *text(const std::string &utf8) {
  return [[[NSString alloc] initWithBytes:utf8.data() length:utf8.size() encoding:NSUTF8StringEncoding] autorelease];
}

// How long a silent server is waited on before the session reports a
// time-out: 60 seconds, or $PARLOVA_SMTP_TIMEOUT_SECONDS.
unsigned smtpTimeoutSeconds() {
  constexpr unsigned kDefault = 60;
  const char *configured = std::getenv("PARLOVA_SMTP_TIMEOUT_SECONDS");
  if (!configured || !*configured)
    return kDefault;
  const long seconds = std::strtol(configured, nullptr, 10);
  return seconds > 0 ? static_cast<unsigned>(seconds) : kDefault;
}

// The transcript email as a message of the framework's, owned by the caller:
// the one builder for every way a message leaves.
CWMessage *newMessage(const MailMessage &mail) {
  CWMessage *message = [[CWMessage alloc] init];
  [message setSubject:text(mail.subject)];
  CWInternetAddress *from = [[CWInternetAddress alloc] initWithString:text(mail.from)];
  [message setFrom:from];
  CWInternetAddress *to = [[CWInternetAddress alloc] initWithString:text(mail.to)];
  [to setType:(PantomimeRecipientType)1];
  [message addRecipient:to];

  // SMTP takes lines of at most 998 bytes, and a server refuses the whole
  // message for one longer (a long link, a long name): such a part goes
  // quoted-printable, which breaks its lines; every other part as always.
  const auto fitForSmtp = [](CWPart *part, const void *bytes, size_t length) {
    const auto *text = static_cast<const char *>(bytes);
    size_t line = 0;
    for (size_t i = 0; i < length; ++i) {
      line = text[i] == '\n' ? 0 : line + 1;
      if (line > 998) {
        [part setContentTransferEncoding:PantomimeEncodingQuotedPrintable];
        return;
      }
    }
  };
  const auto labelled = [&mail](CWPart *part, const void *bytes, size_t length) {
    if (!mail.labelledParts)
      return;
    [part setCharset:@"utf-8"];
    const auto *text = static_cast<const unsigned char *>(bytes);
    if (std::any_of(text, text + length, [](unsigned char c) { return c >= 0x80; }))
      [part setContentTransferEncoding:PantomimeEncodingQuotedPrintable];
  };
  CWMIMEMultipart *multipart = [[CWMIMEMultipart alloc] init];
  CWPart *plain = [[CWPart alloc] init];
  [plain setContentType:@"text/plain"];
  // Parts carry bytes; the plain part gets no character set of its own.
  [plain setContent:[NSData dataWithBytes:mail.plainText.data() length:mail.plainText.size()]];
  fitForSmtp(plain, mail.plainText.data(), mail.plainText.size());
  labelled(plain, mail.plainText.data(), mail.plainText.size());
  [multipart addPart:plain];
  CWPart *html = [[CWPart alloc] init];
  [html setContentType:@"text/html"];
  [html setContent:[NSData dataWithBytes:mail.html.data() length:mail.html.size()]];
  [html setCharset:@"utf-8"];
  fitForSmtp(html, mail.html.data(), mail.html.size());
  labelled(html, mail.html.data(), mail.html.size());
  [multipart addPart:html];

  [message setContentType:@"multipart/alternative"];
  [message setContentTransferEncoding:(PantomimeEncoding)0];
  [message setCharset:@"utf-8"];
  [message setContent:multipart];
  [plain release];
  [html release];
  [multipart release];
  [from release];
  [to release];
  if (!mail.messageId.empty())
    [message setMessageID:text(mail.messageId)];
  return message;
}

class PantomimeSmtpSession final : public SmtpSession {
public:
  PantomimeSmtpSession(const MailServer &server, const MailMessage &message);
  ~PantomimeSmtpSession() override;
  PantomimeSmtpSession(const PantomimeSmtpSession &) = delete;
  PantomimeSmtpSession &operator=(const PantomimeSmtpSession &) = delete;

  void setDelegate(SmtpSessionDelegate *delegate) override;
  int connect() override;
  const std::optional<std::string> &securityFailure() const override { return securityFailure_; }
  void scheduleTimer(double seconds, std::function<void()> fired) override;
  bool runRunLoopOnce() override;
  void authenticate(const std::string &username, const std::string &password, const std::string &mechanism) override;
  void sendMessage() override;
  std::vector<uint8_t> lastResponse() const override;

private:
  struct Objects;
  MailServer server_;
  std::vector<uint8_t> rawMessage_;
  std::unique_ptr<TlsTunnel> tunnel_;
  std::optional<std::string> securityFailure_;
  std::unique_ptr<Objects> objects_;
};

} // namespace

struct PantomimeSmtpSession::Objects {
  NSAutoreleasePool *pool = nil;
  CWSMTP *smtp = nil;
  CWMessage *message = nil;
  ParlovaSmtpDelegate *delegate = nil;
  NSMutableArray *timerTargets = nil;
  NSMutableArray *timers = nil;
  std::deque<std::function<void()>> timerCallbacks; // stable addresses
};

PantomimeSmtpSession::PantomimeSmtpSession(const MailServer &server, const MailMessage &mail)
    : server_(server), rawMessage_(mail.raw), objects_(std::make_unique<Objects>()) {
  objects_->pool = [[NSAutoreleasePool alloc] init];
  objects_->timerTargets = [[NSMutableArray alloc] init];
  objects_->timers = [[NSMutableArray alloc] init];

  objects_->message = newMessage(mail);
  objects_->delegate = [[ParlovaSmtpDelegate alloc] init];
  objects_->delegate->timeout = smtpTimeoutSeconds();
  objects_->delegate->lastActivity = [NSDate timeIntervalSinceReferenceDate];
}

PantomimeSmtpSession::~PantomimeSmtpSession() {
  // A timer that has not fired must not reach callbacks that are gone.
  for (NSUInteger i = 0; i < [objects_->timers count]; ++i)
    [(NSTimer *)[objects_->timers objectAtIndex:i] invalidate];
  for (NSUInteger i = 0; i < [objects_->timerTargets count]; ++i)
    ((ParlovaTimerTarget *)[objects_->timerTargets objectAtIndex:i])->fired = nullptr;
  [objects_->timers release];
  [objects_->smtp setDelegate:nil];
  [objects_->smtp release];
  tunnel_.reset(); // after the framework let go of its end
  [objects_->message release];
  [objects_->delegate release];
  [objects_->timerTargets release];
  [objects_->pool release];
}

void PantomimeSmtpSession::setDelegate(SmtpSessionDelegate *delegate) { objects_->delegate->delegate = delegate; }

int PantomimeSmtpSession::connect() {
  // A secured connection is made and checked before the framework sees it;
  // the framework then speaks plain SMTP to the tunnel.
  std::string host = server_.host;
  unsigned port = server_.port;
  if (server_.security != MailSecurity::None) {
    auto opened = TlsTunnel::open({server_.security, MailProtocol::Smtp, server_.host, server_.port, server_.caFile, server_.verify,
                                   smtpTimeoutSeconds(), server_.log});
    if (auto *failure = std::get_if<TlsTunnel::Failure>(&opened)) {
      if (!failure->unreachable)
        securityFailure_ = failure->reason;
      return -1;
    }
    tunnel_ = std::move(std::get<std::unique_ptr<TlsTunnel>>(opened));
    host = "127.0.0.1";
    port = tunnel_->localPort();
  }
  objects_->smtp = [[CWSMTP alloc] initWithName:text(host) port:port];
  [objects_->smtp setConnectionTimeout:smtpTimeoutSeconds()];
  [objects_->smtp setReadTimeout:smtpTimeoutSeconds()];
  [objects_->smtp setWriteTimeout:smtpTimeoutSeconds()];
  [objects_->smtp setMessage:objects_->message];
  // A message dated other than now goes as the bytes made for it; the
  // message itself still names the recipients.
  if (!rawMessage_.empty())
    [objects_->smtp setMessageData:[NSData dataWithBytes:rawMessage_.data() length:rawMessage_.size()]];
  [objects_->smtp setDelegate:objects_->delegate];
  // A framework exception must not end the run: it counts as no connection.
  @try {
    const int status = [objects_->smtp connect];
    if (status == 0) {
      objects_->delegate->lastActivity = [NSDate timeIntervalSinceReferenceDate];
      objects_->delegate->startedAt = objects_->delegate->lastActivity;
      [objects_->timers addObject:[NSTimer scheduledTimerWithTimeInterval:0.5
                                                                  target:objects_->delegate
                                                                selector:@selector(watch:)
                                                                userInfo:nil
                                                                 repeats:YES]];
    }
    return status;
  } @catch (NSException *exception) {
    return -1;
  }
}

void PantomimeSmtpSession::scheduleTimer(double seconds, std::function<void()> fired) {
  objects_->timerCallbacks.push_back(std::move(fired));
  ParlovaTimerTarget *target = [[ParlovaTimerTarget alloc] init];
  target->fired = &objects_->timerCallbacks.back();
  [objects_->timerTargets addObject:target];
  [objects_->timers addObject:[NSTimer scheduledTimerWithTimeInterval:seconds
                                                                target:target
                                                              selector:@selector(fire:)
                                                              userInfo:nil
                                                               repeats:NO]];
  [target release];
}

bool PantomimeSmtpSession::runRunLoopOnce() {
  NSAutoreleasePool *pool = [[NSAutoreleasePool alloc] init];
  const BOOL ran = [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode beforeDate:[NSDate distantFuture]];
  [pool release];
  return ran;
}

void PantomimeSmtpSession::authenticate(const std::string &username, const std::string &password, const std::string &mechanism) {
  [objects_->smtp authenticate:text(username) password:text(password) mechanism:text(mechanism)];
}

void PantomimeSmtpSession::sendMessage() {
  @try {
    [objects_->smtp sendMessage];
  } @catch (NSException *exception) {
    if (objects_->delegate->delegate)
      objects_->delegate->delegate->messageNotSent();
  }
}

std::vector<uint8_t> PantomimeSmtpSession::lastResponse() const {
  NSData *response = [objects_->smtp lastResponse];
  if (!response)
    return {};
  const auto *bytes = static_cast<const uint8_t *>([response bytes]);
  return std::vector<uint8_t>(bytes, bytes + [response length]);
}

} // namespace parlova

// IMAP: one exchange, stepped along by the framework's notifications.
namespace parlova {
namespace {

struct ImapExchange {
  const ImapRequest *request = nullptr;
  CWIMAPStore *store = nil;
  ImapResult result;
  bool done = false;
  bool initialized = false;
  bool created = false;
  // Once the message is in, the rest (subscribing to the folder) is a
  // courtesy: however the exchange ends, the message is stored.
  bool appended = false;
  std::string folder;          // as the server names it
  std::string received;        // what came since the last command was sent
  std::string lastLine;        // the last line the server sent

  void finish(ImapResult::Outcome outcome, std::string detail = {}) {
    if (done)
      return;
    done = true;
    result.outcome = appended ? ImapResult::Outcome::Stored : outcome;
    result.detail = appended ? std::string() : std::move(detail);
  }
  // The server's words in its last tagged answer, without the tag.
  std::string serverSaid() const {
    const size_t blank = lastLine.find(' ');
    return blank == std::string::npos ? lastLine : lastLine.substr(blank + 1);
  }
};

// A string as IMAP's quoted form, or nothing when it holds what a quoted
// string cannot carry (line ends, NUL, bytes beyond ASCII).
std::optional<std::string> imapQuoted(const std::string &text) {
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

} // namespace
} // namespace parlova

// The framework's side of the exchange: login, the folder selected (made
// first when missing), the search for the message, the append.
@interface ParlovaImapDelegate : NSObject {
@public
  parlova::ImapExchange *exchange;
  NSTimeInterval lastActivity;
  NSTimeInterval startedAt;
  NSTimeInterval timeout;
}
- (void)send:(NSString *)command as:(IMAPCommand)kind;
- (void)listed;
- (void)select;
- (void)watch:(NSTimer *)timer;
@end

@implementation ParlovaImapDelegate
- (void)send:(NSString *)command as:(IMAPCommand)kind {
  exchange->received.clear();
  [exchange->store sendCommand:kind info:nil arguments:@"%@", command];
}
- (void)serviceInitialized:(NSNotification *)notification {
  // It comes again after the login, with the capabilities that brought.
  if (exchange->initialized || exchange->done)
    return;
  exchange->initialized = true;
  CWIMAPStore *store = exchange->store;
  NSString *user = parlova::text(exchange->request->username);
  NSString *password = parlova::text(exchange->request->password);
  // AUTHENTICATE LOGIN carries any name and password (base64); the LOGIN
  // command only what a quoted string can, and only where it is allowed.
  if ([[store supportedMechanisms] containsObject:@"LOGIN"]) {
    exchange->received.clear();
    [store authenticate:user password:password mechanism:@"LOGIN"];
    return;
  }
  const auto quotedUser = parlova::imapQuoted(exchange->request->username);
  const auto quotedPassword = parlova::imapQuoted(exchange->request->password);
  if ([[store capabilities] containsObject:@"LOGINDISABLED"]) {
    exchange->finish(parlova::ImapResult::Outcome::LoginRefused,
                     "the server allows no login over this connection (emailSecurity starttls or tls would)");
    return;
  }
  if (!quotedUser || !quotedPassword) {
    exchange->finish(parlova::ImapResult::Outcome::LoginRefused,
                     "the server offers no login that can carry this user name and password");
    return;
  }
  [self send:parlova::text("LOGIN " + *quotedUser + " " + *quotedPassword) as:IMAP_LOGIN];
}
- (void)authenticationCompleted:(NSNotification *)notification {
  // Which separator the server puts between folder levels.
  [self send:@"LIST \"\" \"\"" as:IMAP_LIST];
}
- (void)authenticationFailed:(NSNotification *)notification {
  exchange->finish(parlova::ImapResult::Outcome::LoginRefused, exchange->serverSaid());
}
- (void)folderListCompleted:(NSNotification *)notification {
  [self listed];
}
- (void)folderListFailed:(NSNotification *)notification {
  [self listed];
}
- (void)listed {
  if (exchange->done || !exchange->folder.empty())
    return;
  // `* LIST (\Noselect) "." ""`: the separator, or NIL for a flat mailbox.
  std::string separator = "/";
  const size_t list = exchange->received.find("* LIST ");
  if (list != std::string::npos) {
    const size_t close = exchange->received.find(") ", list);
    if (close != std::string::npos && exchange->received.compare(close + 2, 1, "\"") == 0) {
      size_t at = close + 3;
      if (exchange->received[at] == '\\')
        ++at;
      separator = exchange->received.substr(at, 1);
    }
  }
  std::string name;
  for (size_t start = 0; start <= exchange->request->folder.size();) {
    const size_t slash = std::min(exchange->request->folder.find('/', start), exchange->request->folder.size());
    name += (name.empty() ? "" : separator) + exchange->request->folder.substr(start, slash - start);
    start = slash + 1;
  }
  exchange->folder = name; // the framework writes it in IMAP's modified UTF-7
  [self select];
}
- (void)select {
  exchange->received.clear();
  [exchange->store folderForName:parlova::text(exchange->folder) mode:PantomimeReadWriteMode prefetch:NO];
}
- (void)folderOpenCompleted:(NSNotification *)notification {
  if (exchange->done)
    return;
  // The name alone is searched for: it is ASCII whatever domain follows.
  [self send:parlova::text("UID SEARCH HEADER Message-ID " + *parlova::imapQuoted(exchange->request->messageIdKey))
          as:IMAP_UID_SEARCH_ALL];
}
- (void)folderOpenFailed:(NSNotification *)notification {
  if (exchange->done)
    return;
  if (exchange->created) {
    exchange->finish(parlova::ImapResult::Outcome::NotStored, exchange->serverSaid());
    return;
  }
  exchange->created = true;
  exchange->received.clear();
  [exchange->store createFolderWithName:parlova::text(exchange->folder) type:PantomimeFormatMbox contents:nil];
}
- (void)folderCreateCompleted:(NSNotification *)notification {
  [self select];
}
- (void)folderCreateFailed:(NSNotification *)notification {
  exchange->finish(parlova::ImapResult::Outcome::FolderNotCreated, exchange->serverSaid());
}
- (void)folderSearchCompleted:(NSNotification *)notification {
  if (exchange->done)
    return;
  // The framework hands back only messages it has cached, so the answer's
  // own line says whether anything matched: "* SEARCH 17".
  const size_t found = exchange->received.find("* SEARCH");
  if (found != std::string::npos && exchange->received.compare(found + 8, 1, " ") == 0 &&
      std::isdigit(static_cast<unsigned char>(exchange->received[found + 9]))) {
    exchange->finish(parlova::ImapResult::Outcome::AlreadyThere);
    return;
  }
  CWIMAPFolder *folder = [[notification userInfo] objectForKey:@"Folder"];
  const auto &bytes = exchange->request->message;
  CWFlags *seen = [[[CWFlags alloc] initWithFlags:PantomimeSeen] autorelease];
  exchange->received.clear();
  [folder appendMessageFromRawSource:[NSData dataWithBytes:bytes.data() length:bytes.size()]
                               flags:seen
                        internalDate:[NSCalendarDate dateWithTimeIntervalSince1970:exchange->request->internalDate]];
}
- (void)folderSearchFailed:(NSNotification *)notification {
  exchange->finish(parlova::ImapResult::Outcome::NotStored, exchange->serverSaid());
}
- (void)folderAppendCompleted:(NSNotification *)notification {
  // Subscribed, so that mail programs which show only subscribed folders
  // show it.
  exchange->appended = true;
  [exchange->store subscribeToFolderWithName:parlova::text(exchange->folder)];
}
- (void)folderSubscribeCompleted:(NSNotification *)notification {
  exchange->finish(parlova::ImapResult::Outcome::Stored);
}
- (void)folderSubscribeFailed:(NSNotification *)notification {
  exchange->finish(parlova::ImapResult::Outcome::Stored);
}
- (void)folderAppendFailed:(NSNotification *)notification {
  exchange->finish(parlova::ImapResult::Outcome::NotStored, exchange->serverSaid());
}
- (void)connectionTimedOut:(NSNotification *)notification {
  exchange->finish(parlova::ImapResult::Outcome::TimedOut);
}
- (void)connectionLost:(NSNotification *)notification {
  exchange->finish(parlova::ImapResult::Outcome::TimedOut);
}
- (void)service:(CWService *)service receivedData:(NSData *)data {
  lastActivity = [NSDate timeIntervalSinceReferenceDate];
  // Bounded: a server that talks without end must not fill the memory.
  if (exchange->received.size() < (1u << 20))
    exchange->received.append(static_cast<const char *>([data bytes]), [data length]);
  std::string_view lines(static_cast<const char *>([data bytes]), [data length]);
  while (!lines.empty() && (lines.back() == '\n' || lines.back() == '\r'))
    lines.remove_suffix(1);
  const size_t start = lines.rfind('\n');
  exchange->lastLine = std::string(start == std::string_view::npos ? lines : lines.substr(start + 1));
}
- (void)service:(CWService *)service sentData:(NSData *)data {
  lastActivity = [NSDate timeIntervalSinceReferenceDate];
}
- (void)watch:(NSTimer *)timer {
  const NSTimeInterval now = [NSDate timeIntervalSinceReferenceDate];
  if (now - lastActivity > timeout || now - startedAt > timeout)
    exchange->finish(parlova::ImapResult::Outcome::TimedOut);
}
@end

namespace parlova {
namespace {

void storeByImap(const MailServer &server, const ImapRequest &request, const std::function<bool()> &keepGoing,
                 ImapResult &result) {
  NSAutoreleasePool *pool = [[NSAutoreleasePool alloc] init];
  ImapExchange exchange;
  exchange.request = &request;
  std::unique_ptr<TlsTunnel> tunnel;
  std::string host = server.host;
  unsigned port = server.port;
  if (server.security != MailSecurity::None) {
    auto opened = TlsTunnel::open({server.security, MailProtocol::Imap, server.host, server.port, server.caFile,
                                   server.verify, smtpTimeoutSeconds(), server.log});
    if (auto *failure = std::get_if<TlsTunnel::Failure>(&opened)) {
      result.outcome = failure->unreachable ? ImapResult::Outcome::Unreachable : ImapResult::Outcome::NotSecured;
      result.detail = failure->reason;
      [pool release];
      return;
    }
    tunnel = std::move(std::get<std::unique_ptr<TlsTunnel>>(opened));
    host = "127.0.0.1";
    port = tunnel->localPort();
  }
  ParlovaImapDelegate *delegate = [[ParlovaImapDelegate alloc] init];
  delegate->exchange = &exchange;
  delegate->timeout = smtpTimeoutSeconds();
  exchange.store = [[CWIMAPStore alloc] initWithName:text(host) port:port];
  [exchange.store setConnectionTimeout:smtpTimeoutSeconds()];
  [exchange.store setReadTimeout:smtpTimeoutSeconds()];
  [exchange.store setWriteTimeout:smtpTimeoutSeconds()];
  [exchange.store setDelegate:delegate];
  NSTimer *watch = nil;
  @try {
    if ([exchange.store connect] != 0) {
      exchange.finish(ImapResult::Outcome::Unreachable);
    } else {
      delegate->lastActivity = delegate->startedAt = [NSDate timeIntervalSinceReferenceDate];
      watch = [NSTimer scheduledTimerWithTimeInterval:0.5
                                               target:delegate
                                             selector:@selector(watch:)
                                             userInfo:nil
                                              repeats:YES];
      while (!exchange.done) {
        if (!keepGoing()) {
          exchange.finish(ImapResult::Outcome::Stopped);
          break;
        }
        NSAutoreleasePool *turn = [[NSAutoreleasePool alloc] init];
        [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode beforeDate:[NSDate distantFuture]];
        [turn release];
      }
    }
  } @catch (NSException *exception) {
    exchange.finish(ImapResult::Outcome::NotStored, [[exception reason] UTF8String] ?: "");
  }
  [watch invalidate];
  [exchange.store setDelegate:nil];
  if (exchange.result.outcome == ImapResult::Outcome::Stored ||
      exchange.result.outcome == ImapResult::Outcome::AlreadyThere) {
    @try {
      [exchange.store close];
    } @catch (NSException *exception) {
    }
  }
  [exchange.store release];
  tunnel.reset(); // after the framework let go of its end
  [delegate release];
  [pool release];
  result = exchange.result;
}

} // namespace
} // namespace parlova

extern "C" __attribute__((visibility("default"))) void parlovaStoreByImap(const parlova::MailServer *server,
                                                                        const parlova::ImapRequest *request,
                                                                        const std::function<bool()> *keepGoing,
                                                                        parlova::ImapResult *result) {
  parlova::storeByImap(*server, *request, *keepGoing, *result);
}

// The message's bytes as the framework writes them, for a mailbox.
extern "C" __attribute__((visibility("default"))) void parlovaRenderMessage(const parlova::MailMessage *mail,
                                                                          std::vector<uint8_t> *bytes) {
  NSAutoreleasePool *pool = [[NSAutoreleasePool alloc] init];
  CWMessage *message = parlova::newMessage(*mail);
  NSData *data = [message dataValue];
  const auto *start = static_cast<const uint8_t *>([data bytes]);
  bytes->assign(start, start + [data length]);
  [message release];
  [pool release];
}

extern "C" __attribute__((visibility("default"))) parlova::SmtpSession *
parlovaOpenSmtpSession(const parlova::MailServer *server, const parlova::MailMessage *message) {
  return std::make_unique<parlova::PantomimeSmtpSession>(*server, *message).release();
}
