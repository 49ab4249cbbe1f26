#pragma once

#include <map>
#include <string>

namespace bench {

/// The arguments of a benchmark program: a verb, then `--name value` pairs.
class Options final {
public:
    Options(int argc, char** argv);

    const std::string& Verb() const { return verb; }
    std::string Text(const std::string& name, const std::string& fallback) const;
    long Number(const std::string& name, long fallback) const;
    double Real(const std::string& name, double fallback) const;

private:
    std::string verb;
    std::map<std::string, std::string> values;
};

} // namespace bench
