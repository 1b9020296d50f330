#include "server/login_page.h"

namespace devserver {
namespace {

constexpr const char* kStyle =
    "<style>body{font-family:sans-serif;max-width:26em;margin:4em auto;color:#222}"
    "label{display:block;margin:.8em 0 .2em}input[type=text],input[type=password]{width:100%;"
    "padding:.4em;box-sizing:border-box}.error{color:#b00020}.buttons{margin-top:1.2em}"
    "button{padding:.5em 1.2em;margin-right:.6em}</style>";

}  // namespace

std::string escapeHtml(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

std::string renderLoginPage(const std::string& action,
                            const std::map<std::string, std::string>& fields,
                            const std::string& clientName, const std::string& member,
                            const std::string& error) {
  std::string html =
      "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>Sign in to Halvark</title>";
  html += kStyle;
  html += "</head><body><h1>Sign in to Halvark</h1><p><strong>" + escapeHtml(clientName) +
          "</strong> asks for access to your brains.</p>";
  if (!error.empty()) html += "<p class=\"error\">" + escapeHtml(error) + "</p>";
  html += "<form method=\"post\" action=\"" + escapeHtml(action) + "\">";
  for (const auto& [name, value] : fields) {
    html += "<input type=\"hidden\" name=\"" + escapeHtml(name) + "\" value=\"" +
            escapeHtml(value) + "\">";
  }
  html +=
      "<label for=\"member\">Member</label><input type=\"text\" id=\"member\" name=\"member\" "
      "autocomplete=\"username\" value=\"" +
      escapeHtml(member) + "\" autofocus>";
  html +=
      "<label for=\"password\">Password</label><input type=\"password\" id=\"password\" "
      "name=\"password\" autocomplete=\"current-password\">";
  html +=
      "<div class=\"buttons\"><button type=\"submit\" name=\"decision\" value=\"allow\">"
      "Allow</button><button type=\"submit\" name=\"decision\" value=\"deny\">Deny</button>"
      "</div></form></body></html>";
  return html;
}

std::string renderErrorPage(const std::string& title, const std::string& message) {
  return "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>" + escapeHtml(title) +
         "</title>" + kStyle + "</head><body><h1>" + escapeHtml(title) +
         "</h1><p class=\"error\">" + escapeHtml(message) + "</p></body></html>";
}

}  // namespace devserver
