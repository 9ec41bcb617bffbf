#include "ReferenceIndex.h"

#include <stdexcept>

namespace OmbrixTool {

namespace {

std::vector<std::string_view> Lines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    return lines;
}

bool StartsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

bool IsHeading(std::string_view line) { return StartsWith(line, "#"); }

std::string_view Trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\r')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.remove_suffix(1);
    return text;
}

[[noreturn]] void Fail(size_t line, const std::string& what) {
    throw std::runtime_error("reference line " + std::to_string(line + 1) + ": " + what);
}

}  // namespace

std::vector<ReferenceEntry> ParseReference(std::string_view markdown) {
    const std::vector<std::string_view> lines = Lines(markdown);
    std::vector<ReferenceEntry> entries;
    bool fenced = false;
    ReferenceEntry* open = nullptr;  // the entry whose text is being collected
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string_view line = lines[i];
        if (StartsWith(line, "```")) fenced = !fenced;
        if (!fenced && IsHeading(line) && !StartsWith(line, "```")) open = nullptr;
        if (!fenced && StartsWith(line, "### ")) {
            ReferenceEntry entry;
            entry.name = std::string(Trim(line.substr(4)));
            if (entry.name.find('.') == std::string::npos || entry.name.find(' ') != std::string::npos)
                Fail(i, "heading \"" + std::string(line) + "\" does not name a routine or type");
            // The declarations: the first code block, before any other heading.
            size_t j = i + 1;
            while (j < lines.size() && !StartsWith(lines[j], "```") && !IsHeading(lines[j])) ++j;
            if (j == lines.size() || lines[j] != "```text")
                Fail(i, "entry " + entry.name + " has no ```text block of declarations");
            for (++j; j < lines.size() && !StartsWith(lines[j], "```"); ++j)
                if (!Trim(lines[j]).empty()) entry.declarations.emplace_back(Trim(lines[j]));
            if (j == lines.size()) Fail(i, "entry " + entry.name + ": declaration block is not closed");
            if (entry.declarations.empty()) Fail(i, "entry " + entry.name + " lists no declaration");
            for (++j; j < lines.size() && Trim(lines[j]).empty(); ++j) {
            }
            // The summary: the first paragraph after the declarations, on one line.
            for (; j < lines.size() && !Trim(lines[j]).empty() && !IsHeading(lines[j]) && !StartsWith(lines[j], "```") &&
                   !StartsWith(lines[j], "- ");
                 ++j)
                (entry.summary += entry.summary.empty() ? "" : " ") += Trim(lines[j]);
            entries.push_back(std::move(entry));
            open = &entries.back();
        }
        if (open) (open->text += line) += '\n';
    }
    // An entry ends with its last non-blank line.
    for (ReferenceEntry& entry : entries) {
        while (entry.text.size() > 1 && entry.text[entry.text.size() - 1] == '\n' &&
               entry.text[entry.text.size() - 2] == '\n')
            entry.text.pop_back();
    }
    return entries;
}

std::vector<ReferenceTopic> ParseTopics(std::string_view markdown) {
    std::vector<ReferenceTopic> topics;
    bool fenced = false;
    ReferenceTopic* open = nullptr;  // the topic whose text is being collected
    for (const std::string_view line : Lines(markdown)) {
        if (StartsWith(line, "```")) fenced = !fenced;
        if (!fenced && IsHeading(line) && !StartsWith(line, "```")) {
            open = nullptr;
            if (StartsWith(line, "## ")) {
                topics.push_back({std::string(Trim(line.substr(3))), ""});
                open = &topics.back();
            }
        }
        if (open) (open->text += line) += '\n';
    }
    // A topic ends with its last non-blank line; one that is only its heading is none.
    std::vector<ReferenceTopic> said;
    for (ReferenceTopic& topic : topics) {
        while (topic.text.size() > 1 && topic.text.back() == '\n' && topic.text[topic.text.size() - 2] == '\n')
            topic.text.pop_back();
        if (topic.text.find('\n') + 1 < topic.text.size()) said.push_back(std::move(topic));
    }
    return said;
}

std::vector<std::string> DefinitionDeclarations(std::string_view definition) {
    // " FUNCTION ... (...) : entry FUNCTION ... : entry TYPE X : factory"
    std::vector<std::string> declarations;
    size_t position = 0;
    while (true) {
        while (position < definition.size() && definition[position] == ' ') ++position;
        if (position >= definition.size()) break;
        const size_t colon = definition.find(" : ", position);
        if (colon == std::string_view::npos) throw std::runtime_error("definition text: declaration without entry");
        declarations.emplace_back(definition.substr(position, colon - position));
        position = definition.find(' ', colon + 3);
        if (position == std::string_view::npos) break;
    }
    return declarations;
}

std::string DeclaredName(std::string_view declaration) {
    // FUNCTION <result> <name> (...), PROCEDURE <name> (...), TYPE <name>
    size_t skip = 1;
    if (StartsWith(declaration, "FUNCTION "))
        skip = 2;
    else if (!StartsWith(declaration, "PROCEDURE ") && !StartsWith(declaration, "TYPE "))
        return "";
    size_t start = 0;
    for (size_t word = 0; word < skip; ++word) {
        start = declaration.find(' ', start);
        if (start == std::string_view::npos) return "";
        ++start;
    }
    const size_t end = declaration.find_first_of(" (", start);
    return std::string(declaration.substr(start, end == std::string_view::npos ? end : end - start));
}

}  // namespace OmbrixTool
