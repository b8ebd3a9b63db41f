// Reports for the user and for other programs.
#pragma once

#include <iosfwd>
#include <vector>

#include "Runner.h"

namespace bench {

// A table of figures for each group, then one of every goal with its verdict.
void printReport(std::ostream& out, const SuiteReport& report);

// One line of column names, then one per figure ("measured") and per goal ("goal"). Fields with a
// comma or quote are quoted; a column that does not apply is empty.
void writeCsv(std::ostream& out, const std::vector<SuiteReport>& reports);

}  // namespace bench
