#pragma once

// A replay as one page for a browser, which needs nothing beside itself: connections over time with the spans in which
// they were held, the questions, a search field, the details of a row, by mouse and keys.

#include "lab/ConnectionRows.h"
#include "lab/TableReport.h"

#include <string>
#include <vector>

namespace lab {

// The whole page.
std::string htmlReport(const std::string& title, const std::vector<ConnectionRow>& rows,
                       const Totals& totals);

// Writes it. Throws InputError when the file cannot be written.
void writeHtmlReport(const std::string& path, const std::string& title,
                     const std::vector<ConnectionRow>& rows, const Totals& totals);

} // namespace lab
