#include "report.h"

#include "archive.h"
#include "report_parts.h"
#include "terminal/quantity.h"
#include "terminal/text_table.h"
#include "terminal/write_out.h"

#include <array>
#include <ctime>

namespace diagnosis {

namespace {

constexpr const char* Introduction =
    "A report on a message bus, made by 'msgbus report'. The values of topics are not in it. The names of topics,\n"
    "subscribers and programs are, and whatever the log says.\n\n";

std::string DefaultName() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    std::array<char, 64> name{};
    ::gmtime_r(&now, &parts);
    std::strftime(name.data(), name.size(), "msgbus-report-%Y%m%dT%H%M%SZ", &parts);
    return name.data();
}

} // namespace

ExitStatus Report(const ReportArguments& arguments) {
    const std::string name = DefaultName();
    const std::string path = arguments.output.value_or(name + ".tar.gz");
    const auto parts = CollectParts(arguments);
    terminal::Table contents(
        {{"SIZE"}, {"FILE", terminal::Table::Align::Left}, {"WHAT", terminal::Table::Align::Left}});
    for (const auto& part : parts) {
        contents.Add({terminal::Bytes(part.content.size()), part.name, part.meaning});
    }
    Archive archive(path);
    archive.Add(name + "/README.txt", Introduction + contents.Text());
    for (const auto& part : parts) {
        archive.Add(name + '/' + part.name, part.content);
    }
    archive.Finish();
    terminal::WriteOut(path + "\n" + contents.Text("  ") +
                       "No values of topics are in it; names of topics, subscribers and programs are.\n");
    return ExitStatus::Done;
}

} // namespace diagnosis
