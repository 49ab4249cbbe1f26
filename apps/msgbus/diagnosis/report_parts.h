#pragma once

#include "report.h"

#include <string>
#include <vector>

namespace diagnosis {

/// A file of a report.
struct ReportPart {
    std::string name;
    std::string meaning;
    std::string content;
};

/// Collects what there is. Throws: std::invalid_argument when the log of the arguments cannot be read.
std::vector<ReportPart> CollectParts(const ReportArguments& arguments);

} // namespace diagnosis
