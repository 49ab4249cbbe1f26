#include "topics/subscribe.h"

#include "arguments.h"
#include "look/look_loop.h"
#include "topics/account_topics.h"

#include <stdexcept>
#include <utility>

namespace topics {

namespace {

constexpr const char* NoAccount =
    "the server keeps no account (--no-account), so that --match cannot notice the topics that it has";

/// Returns: the topics of the server's account; nothing when there is none.
std::unique_ptr<AccountTopics> OpenAccount(const Selection& selection) {
    try {
        return std::make_unique<AccountTopics>(GlobSet(selection.globs), selection.named);
    } catch (const instruments::NoAccountError&) {
        return nullptr;
    }
}

/// Throws: std::runtime_error unless the account is that of a server that runs.
void RequireAccount() {
    try {
        const auto server =
            look::AccountSource(std::nullopt).Read(instruments::AccountReader::Depth::WithoutLatency).server;
        if (!look::HasEnded(server)) {
            return;
        }
    } catch (const instruments::NoAccountError&) { // Justified: said below.
    }
    throw std::runtime_error(NoAccount);
}

} // namespace

const char* const MatchDescription =
    "--match takes the topics that have a publisher or a subscriber, or had one of late, and those that come: they are "
    "noticed within some 10 ms, in the account of the server. Of what a new topic had by then, the last value comes "
    "first; values before that are missed, unless the topic had a subscriber before it had a publisher. A pattern is "
    "for bytes, as in "
    "a shell: * any number, also of '/', ? one, [a-c] and [!a-c] one of some, a backslash takes the next as it is.";

void Selection::Check() const {
    if (named.empty() && globs.empty()) {
        throw std::invalid_argument("TOPIC is required, or --match");
    }
    static_cast<void>(GlobSet(globs));
}

void SelectionWords::AddTo(command_line::Command& command) {
    command.add_option("TOPIC", arguments, "topics of 1 to 1023 bytes")->type_name("TOPIC");
    command.add_option("-t,--topic", topics, "a topic, beside the arguments (repeatable)")
        ->type_name("TOPIC")
        ->allow_extra_args(false);
    command
        .add_option("--match", globs,
                    "the topics that match, also those that come later, such as 'sensors/*' (repeatable)")
        ->type_name("GLOB")
        ->allow_extra_args(false);
}

Selection SelectionWords::Resolve() const {
    Selection selection{topics, globs};
    selection.named.insert(selection.named.end(), arguments.begin(), arguments.end());
    selection.Check();
    return selection;
}

std::unique_ptr<Subscription> Subscribe(const BusAccess& access, const std::string& name, const Selection& selection) {
    if (selection.globs.empty()) {
        return std::make_unique<Subscription>(name, selection.named, access.options);
    }
    auto account = OpenAccount(selection);
    const bool hasAccount = account != nullptr;
    std::vector<std::string> topics = selection.named;
    if (account) {
        for (auto& topic : account->Look()) {
            topics.push_back(std::move(topic.name));
        }
    }
    auto subscription =
        std::make_unique<Subscription>(name, std::move(topics), access.options, std::move(account),
                                       [quiet = access.isQuiet](const std::string& sentence, bool isGap) {
                                           if (isGap || !quiet) {
                                               Say(sentence);
                                           }
                                       });
    RequireAccount(); // behind the subscription: without a server there is another error, and perhaps a wait
    if (hasAccount) {
        return subscription;
    }
    subscription.reset();
    return Subscribe(access, name, selection); // the server has started meanwhile
}

} // namespace topics
