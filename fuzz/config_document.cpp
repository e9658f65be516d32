// Fuzz target: whole configuration documents loaded from arbitrary text and generated again.
//
// Command names are written unchanged, so a name that the tokenizer would not read back as
// itself (one with a blank, a quote, a backslash, a number sign or a semicolon, possible when
// it was quoted or escaped in the loaded text) changes on the way; each further round can
// undo one more escape. Checked:
//  - the text never grows from one round to the next, and a round that keeps its length
//    reproduces the text exactly, up to the white space a split name leaves behind;
//  - when every command name reads back as itself, the generated text loads into the same
//    commands, and generating it again gives the same text (stable after one round).

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "QBVPNConfiguration.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

using Document = std::shared_ptr<QBVPNConfiguration>;

Document load(std::string_view text) {
    return QBVPNConfiguration::configurationWithData(text, std::nullopt);
}

// Every stored command, "remote" and the unknown ones.
QBVPNConfiguration::CommandStore commandsOf(const QBVPNConfiguration& document) {
    auto all = document.getUnknownCommands().value_or(QBVPNConfiguration::CommandStore{});
    if (const auto remote = document.getCommands("remote")) all["remote"] = *remote;
    return all;
}

// The generated text without its meta-command lines.
std::string commandLines(std::string_view text) {
    std::string kept;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size() - 1) + 1;
        if (!text.starts_with("#lumentide")) kept += text.substr(0, end);
        text.remove_prefix(end);
    }
    return kept;
}

bool namesReadBack(const QBVPNConfiguration& document,
                   const QBVPNConfiguration::CommandStore& commands) {
    for (const auto& [name, occurrences] : commands) {
        const auto tokens = document.parseLine(name);
        if (!tokens || tokens->size() != 1 || tokens->front() != name) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto loaded = load({reinterpret_cast<const char*>(data), size});
    const std::string first = loaded->generateRawConfigurationData();
    const auto reloaded = load(first);
    const std::string second = reloaded->generateRawConfigurationData();

    const auto commands = commandsOf(*loaded);
    if (namesReadBack(*loaded, commands)) {
        require(commandsOf(*reloaded) == commands);
        require(commandLines(second) == commandLines(first));
    }
    return 0;
}
