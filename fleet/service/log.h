// The service's log: one line each on standard error, with the levels of the journal.
#pragma once

#include <string>

namespace service_log {

void error(const std::string& text);
void warning(const std::string& text);
void notice(const std::string& text);
void info(const std::string& text);

} // namespace service_log
