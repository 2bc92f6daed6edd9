#include "history/HitJson.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "foundation/JsonText.h"

namespace parlova {

std::string isoLocalTime(std::optional<double> seconds) {
  if (!seconds)
    return {};
  const auto time = static_cast<std::time_t>(*seconds);
  std::tm local{};
  localtime_r(&time, &local);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
  const long offset = local.tm_gmtoff / 60;
  char zone[48];
  std::snprintf(zone, sizeof zone, "%c%02ld:%02ld", offset < 0 ? '-' : '+', std::labs(offset) / 60,
                std::labs(offset) % 60);
  return std::string(text) + zone;
}

std::string hitJson(const SearchHit &hit, const std::optional<std::string> &page, std::string_view more) {
  std::string with = "[";
  for (const std::string &account : hit.with) {
    if (with.size() > 1)
      with += ',';
    with += jsonString(account);
  }
  with += "]";
  std::string json = "{\"transcript\":";
  json += jsonString(hit.transcript);
  json += ",\"with\":";
  json += with;
  json += ",\"account\":";
  json += jsonString(hit.message.account);
  json += ",\"speaker\":";
  json += jsonString(hit.message.speaker);
  json += ",\"time\":";
  json += hit.message.time ? jsonString(isoLocalTime(hit.message.time)) : "null";
  json += ",\"text\":";
  json += jsonString(hit.message.text);
  json += ",\"snippet\":";
  json += jsonString(hit.snippet);
  json += ",\"page\":";
  json += page ? jsonString(*page) : "null";
  json += more;
  json += "}";
  return json;
}

} // namespace parlova
