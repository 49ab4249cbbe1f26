#include "publish/publish.h"

#include "arguments.h"
#include "end_watch.h"
#include "msgbus/error.h"
#include "msgbus/publisher.h"
#include "publish/pace.h"
#include "publish/value_source.h"
#include "throw_again.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace publish {

namespace {

std::unique_ptr<ValueSource> SourceOf(const Arguments& arguments, const EndWatch& watch) {
    switch (arguments.source) {
    case Source::Input:
        return std::make_unique<InputValues>(watch, arguments.skipsEmptyLines ? EmptyLines::AreSkipped
                                                                              : EmptyLines::AreErrors);
    case Source::Clock:
        return std::make_unique<ClockReadings>(arguments.repetitions);
    case Source::List:
        break;
    }
    return std::make_unique<ListedValues>(arguments.values, arguments.repetitions);
}

ExitStatus PublishAll(msgbus::Publisher& publisher, ValueSource& source, Pace& pace) {
    std::uint64_t published = 0;
    try {
        while (!source.IsAtEnd()) {
            if (!pace.Await()) {
                break;
            }
            const auto value = source.Next();
            if (!value) {
                break;
            }
            publisher.Push(*value);
            ++published;
        }
    } catch (const std::exception&) {
        ThrowAgain([&](const std::string& sentence) {
            const std::string place = source.Place();
            return place.empty() ? sentence
                                 : place + sentence + "; values published before it: " + std::to_string(published);
        });
    }
    if (source.IsAtEnd() || !source.IsLeftUnfinished()) {
        return ExitStatus::Done;
    }
    Say("interrupted; values published: " + std::to_string(published));
    return ExitStatus::Failed;
}

} // namespace

ExitStatus Publish(const Arguments& arguments) {
    WarnAboutCutTopic(arguments.topic);
    const EndWatch watch(std::nullopt, EndWatch::Output::Ignored);
    std::optional<msgbus::Publisher> publisher;
    if (!Connect(arguments.access, watch, [&] { publisher.emplace(arguments.topic, arguments.access.options); })) {
        Say("interrupted; values published: 0");
        return ExitStatus::Failed;
    }
    if (arguments.isVerbose) {
        Say("publishing to topic '" + arguments.topic + "' (id " + std::to_string(publisher->Id()) + ")");
    }
    const auto source = SourceOf(arguments, watch);
    Pace pace(arguments.interval, watch);
    const ExitStatus status = PublishAll(*publisher, *source, pace);
    publisher->Close();
    return status;
}

} // namespace publish
