#include "tests/cli/VcdParser.h"

#include <algorithm>
#include <sstream>

namespace oltb::testing {

namespace {

std::vector<std::string> tokensUntilEnd(std::istringstream& in) {
    std::vector<std::string> tokens;
    std::string token;
    while (in >> token && token != "$end") {
        tokens.push_back(token);
    }
    return tokens;
}

}  // namespace

const VcdVariable* VcdDump::variableNamed(const std::string& name) const {
    const auto found = std::find_if(variables.begin(), variables.end(),
                                    [&name](const VcdVariable& variable) { return variable.name == name; });
    return found == variables.end() ? nullptr : &*found;
}

std::vector<VcdChange> VcdDump::changesOf(const std::string& name) const {
    std::vector<VcdChange> result;
    if (const VcdVariable* variable = variableNamed(name)) {
        std::copy_if(changes.begin(), changes.end(), std::back_inserter(result),
                     [variable](const VcdChange& change) { return change.identifier == variable->identifier; });
    }
    return result;
}

std::int64_t signedValueOf(const std::string& binary, unsigned size) {
    const auto value = static_cast<std::int64_t>(std::stoull(binary, nullptr, 2));
    // A vector shorter than its variable is extended with zeros, so only a full-width one can be negative.
    return binary.size() == size && binary[0] == '1' ? value - (std::int64_t{1} << size) : value;
}

bool parseVcd(const std::string& text, VcdDump& dump, std::string& error) {
    std::istringstream in(text);
    std::string token;
    while (in >> token && token != "$enddefinitions") {
        const std::vector<std::string> tokens = tokensUntilEnd(in);
        if (token == "$timescale" && tokens.size() == 2) {
            dump.timescale = tokens[0] + " " + tokens[1];
        } else if (token == "$var") {
            if (tokens.size() != 4 || tokens[1].find_first_not_of("0123456789") != std::string::npos ||
                dump.variables.end() != std::find_if(dump.variables.begin(), dump.variables.end(),
                                                     [&](const VcdVariable& v) { return v.identifier == tokens[2]; })) {
                error = "bad or repeated $var";
                return false;
            }
            dump.variables.push_back({tokens[0], static_cast<unsigned>(std::stoul(tokens[1])), tokens[2], tokens[3]});
        } else if (token[0] != '$') {
            error = "unexpected '" + token + "' among the declarations";
            return false;
        }
    }
    if (token != "$enddefinitions" || dump.timescale.empty()) {
        error = "no $enddefinitions or no $timescale";
        return false;
    }
    tokensUntilEnd(in);
    bool timeSeen = false;
    while (in >> token) {
        if (token == "$dumpvars" || token == "$end") {
            continue;
        }
        if (token[0] == '#') {
            const std::uint64_t time = std::stoull(token.substr(1));
            if (timeSeen && time < dump.lastTime) {
                error = "time goes back to " + token;
                return false;
            }
            dump.lastTime = time;
            timeSeen = true;
            continue;
        }
        VcdChange change{dump.lastTime, token.substr(1), token.substr(0, 1)};
        if (token[0] == 'b' && !(in >> change.identifier)) {
            error = "vector value without identifier";
            return false;
        }
        change.value = token[0] == 'b' ? token.substr(1) : change.value;
        const VcdVariable* variable = nullptr;
        for (const VcdVariable& candidate : dump.variables) {
            variable = candidate.identifier == change.identifier ? &candidate : variable;
        }
        const bool binary = change.value.find_first_not_of("01") == std::string::npos;
        if (!timeSeen || variable == nullptr || change.value.empty() ||
            (change.value != "x" && (!binary || change.value.size() > variable->size))) {
            error = "bad value change '" + token + "' for '" + change.identifier + "'";
            return false;
        }
        dump.changes.push_back(change);
    }
    return true;
}

}  // namespace oltb::testing
