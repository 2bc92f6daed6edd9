// The Pantomime side of the SMTP session, built into the mail
// module. Objective-C stays in this file.
#include "mail/ServerConnection.h"
#include "mail/SmtpSession.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <deque>
#include <optional>
#include <string_view>

#import <Foundation/Foundation.h>
#import <Pantomime/CWConstants.h>
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
- (void)serviceInitialized:(NSNotification *)notification {
  if (delegate && !finished)
    delegate->serviceInitialized();
}
- (void)transactionResetCompleted:(NSNotification *)notification {
  lastActivity = [NSDate timeIntervalSinceReferenceDate];
  if (delegate && !finished)
    delegate->transactionResetCompleted();
}
- (void)transactionResetFailed:(NSNotification *)notification {
  if ([self finish])
    delegate->transactionResetFailed();
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

  CWMIMEMultipart *multipart = [[CWMIMEMultipart alloc] init];
  CWPart *plain = [[CWPart alloc] init];
  [plain setContentType:@"text/plain"];
  // Parts carry bytes; the plain part gets no character set of its own.
  const std::string plainText = mail.plainText.whole();
  [plain setContent:[NSData dataWithBytes:plainText.data() length:plainText.size()]];
  if (mail.labelledParts)
    [plain setCharset:@"utf-8"];
  if (mail.plainQuotedPrintable)
    [plain setContentTransferEncoding:PantomimeEncodingQuotedPrintable];
  [multipart addPart:plain];
  CWPart *html = [[CWPart alloc] init];
  [html setContentType:@"text/html"];
  const std::string htmlText = mail.html.whole();
  [html setContent:[NSData dataWithBytes:htmlText.data() length:htmlText.size()]];
  [html setCharset:@"utf-8"];
  if (mail.htmlQuotedPrintable)
    [html setContentTransferEncoding:PantomimeEncodingQuotedPrintable];
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
  void resetFor(const MailMessage &message) override;
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
  objects_->delegate->timeout = mailTimeoutSeconds();
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
                                   mailTimeoutSeconds(), server_.log});
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
  [objects_->smtp setConnectionTimeout:mailTimeoutSeconds()];
  [objects_->smtp setReadTimeout:mailTimeoutSeconds()];
  [objects_->smtp setWriteTimeout:mailTimeoutSeconds()];
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

void PantomimeSmtpSession::resetFor(const MailMessage &mail) {
  [objects_->message release];
  objects_->message = newMessage(mail);
  rawMessage_ = mail.raw;
  [objects_->smtp setMessage:objects_->message];
  if (!rawMessage_.empty())
    [objects_->smtp setMessageData:[NSData dataWithBytes:rawMessage_.data() length:rawMessage_.size()]];
  // The framework takes the recipients (and the bytes with them) from the
  // message only when it holds none from the last one.
  [objects_->smtp setRecipients:nil];
  ParlovaSmtpDelegate *watch = objects_->delegate;
  watch->finished = NO;
  watch->lastActivity = watch->startedAt = [NSDate timeIntervalSinceReferenceDate];
  @try {
    [objects_->smtp reset];
  } @catch (NSException *exception) {
    if ([watch finish])
      watch->delegate->transactionResetFailed();
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

// Only for a thread that made messages: the framework knows it by then,
// whether it was told or found it on its own (loading the module there).
extern "C" __attribute__((visibility("default"))) void parlovaLeaveThread() { GSUnregisterCurrentThread(); }

// The message's bytes as the framework writes them, for a mailbox.
extern "C" __attribute__((visibility("default"))) void parlovaRenderMessage(const parlova::MailMessage *mail,
                                                                          std::vector<uint8_t> *bytes) {
  // A catch-up composes on a thread of its own, which the framework must
  // know before it makes objects there; once is enough, and the main
  // thread is known already.
  GSRegisterCurrentThread();
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
