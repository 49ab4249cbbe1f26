#include "options.h"

#include <stdexcept>

namespace bench {

Options::Options(int argc, char** argv) {
    if (argc > 1) {
        verb = argv[1];
    }
    for (int i = 2; i < argc; i += 2) {
        const std::string name = argv[i];
        if (name.rfind("--", 0) != 0 || i + 1 >= argc) {
            throw std::invalid_argument("expected --name value, got '" + name + "'");
        }
        values[name.substr(2)] = argv[i + 1];
    }
}

std::string Options::Text(const std::string& name, const std::string& fallback) const {
    const auto found = values.find(name);
    return found == values.end() ? fallback : found->second;
}

long Options::Number(const std::string& name, long fallback) const {
    const auto found = values.find(name);
    return found == values.end() ? fallback : std::stol(found->second);
}

double Options::Real(const std::string& name, double fallback) const {
    const auto found = values.find(name);
    return found == values.end() ? fallback : std::stod(found->second);
}

} // namespace bench
