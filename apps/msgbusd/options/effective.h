#pragma once

#include "msgbusd/options/sources.h"

#include <map>
#include <string>
#include <vector>

namespace msgbusd {

/// The settings that several sources make together, and where each comes from.
class EffectiveSettings final {
public:
    /// `given`: the sources with the lowest rank first.
    explicit EffectiveSettings(const std::vector<GivenOptions>& given);

    const Settings& Get() const noexcept { return settings; }

    /// What is wrong with the sources, each as a sentence that begins with its place: mistakes in one of them, and
    /// options that exclude each other.
    const std::vector<std::string>& Mistakes() const noexcept { return mistakes; }

    /// Returns: the settings as a file that makes the same ones, each with its source in a comment.
    std::string ToFile() const;

    /// Returns: what does not come from the command line, as options of it.
    std::string AsCommandLine() const;

private:
    /// Which values of an option count, in their order.
    using Values = std::vector<Given>;

    void Take(const Given& given);
    void TakeBare(const std::vector<Given>& given);
    void CheckTogether();
    void CheckNeed(const std::string& dependent, const std::string& needed);
    const Given* LastOf(const std::string& key) const;
    std::string SourceOf(const Option& option, const std::string& value) const;

    Settings settings;
    std::map<std::string, Values> values; ///< by the key; none: the default
    std::vector<std::string> mistakes;
};

} // namespace msgbusd
