// The table of figures that README.md shows.
#pragma once

#include <iosfwd>
#include <regex>
#include <vector>

#include "Runner.h"

namespace bench {

// Matches the measurements that the table needs.
std::regex readmeFilter();

// In Markdown. A row whose measurement is missing has a dash for it.
void printReadmeTable(std::ostream& out, const std::vector<SuiteReport>& reports);

}  // namespace bench
