#pragma once
// The HTML of the authorisation endpoint: the sign-in form and the page shown
// when a request cannot be sent back to the client.

#include <map>
#include <string>

namespace devserver {

// `fields` are the authorisation request's parameters, carried as hidden inputs
// so that the form's POST repeats the request; `error` is shown above the form.
std::string renderLoginPage(const std::string& action,
                            const std::map<std::string, std::string>& fields,
                            const std::string& clientName, const std::string& member,
                            const std::string& error);

std::string renderErrorPage(const std::string& title, const std::string& message);

std::string escapeHtml(const std::string& text);

}  // namespace devserver
