// What a run will do with the settings as they are: which stages are on,
// where the mail goes, and what in the settings would stop the run or spoil
// its mail. The dry run prints it, a catch-up shows it before it asks, and
// every run that mails refuses to begin when it names a problem.
#pragma once

#include <string>
#include <vector>

namespace parlova {

class RunPlan {
public:
  // With `tryPassword`, a password command is run to see that it gives
  // one (a dry run, a catch-up); a single run leaves that to the mail.
  enum class Password { Tried, NotTried };
  static RunPlan ofSettings(Password password);

  bool mailOn() const { return mailOn_; }
  // "mail     off (sendEmails): ...", one line per stage.
  const std::vector<std::string> &stages() const { return stages_; }
  // Each stops every transcript's mail: no run begins while there is one.
  const std::vector<std::string> &problems() const { return problems_; }
  // Worth knowing, stopping nothing.
  const std::vector<std::string> &warnings() const { return warnings_; }
  // The stages, the problems and the warnings, a line each.
  std::string text() const;

  // False when there is a problem: logged, and put into reportThis. A
  // report of an earlier refusal is taken out once nothing stands.
  bool allowsRun() const;

private:
  bool mailOn_ = false;
  std::vector<std::string> stages_;
  std::vector<std::string> problems_;
  std::vector<std::string> warnings_;
};

} // namespace parlova
