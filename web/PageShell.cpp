#include "web/PageShell.h"

#include "foundation/HtmlText.h"

namespace parlova {

std::string PageShell::page(const std::string &title, const SearchForm &form, const std::string &body) {
  const auto value = [](const std::string &text) { return "\"" + escapedForHtml(text) + "\""; };
  std::string html;
  html.reserve(body.size() + 2048);
  html += "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
          "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
          "<meta name=\"referrer\" content=\"no-referrer\"><title>";
  html += escapedForHtml(title);
  html += " \xE2\x80\x94 Parlova</title><link rel=\"stylesheet\" href=\"/app.css\"><link rel=\"icon\" href=\"/icon.svg\">"
          "<script src=\"/app.js\" defer></script></head>\n<body>\n<header>"
          "<nav><a href=\"/\" class=\"home\">Parlova</a> <a href=\"/people\">People</a> "
          "<a href=\"/calendar\">Calendar</a></nav>\n"
          "<form id=\"search\" action=\"/search\" method=\"get\" role=\"search\">"
          "<input id=\"q\" type=\"search\" name=\"q\" autocomplete=\"off\" placeholder=\"Search every chat\" "
          "maxlength=\"1000\" value=";
  html += value(form.query);
  html += "> <input id=\"with\" name=\"with\" placeholder=\"with\" maxlength=\"200\" value=";
  html += value(form.with);
  html += "> <label>from <input id=\"since\" type=\"date\" name=\"since\" value=";
  html += value(form.since);
  html += "></label> <label>to <input id=\"until\" type=\"date\" name=\"until\" value=";
  html += value(form.until);
  html += "></label> <label><input type=\"checkbox\" name=\"links\" value=\"1\"";
  html += form.links ? " checked" : "";
  html += "> has a link</label> <label><input type=\"checkbox\" name=\"pictures\" value=\"1\"";
  html += form.pictures ? " checked" : "";
  html += "> has a picture</label> <select name=\"sort\"><option value=\"rank\">best first</option>"
          "<option value=\"date\"";
  html += form.byDate ? " selected" : "";
  html += ">by date</option></select> <button type=\"submit\">Search</button></form>\n</header>\n<main id=\"main\">\n";
  html += body;
  html += "\n</main>\n</body></html>\n";
  return html;
}

} // namespace parlova
