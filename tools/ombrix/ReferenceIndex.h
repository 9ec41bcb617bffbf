// The routine reference (docs/reference.md) read as entries: one per
// "### Namespace.Name" heading, whose first code block ("```text") lists the
// declarations of that name exactly as the module declares them; and as
// topics, its sections. The page on the command's Lua API
// (docs/ombrix-lua.md) has the same form.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace OmbrixTool {

struct ReferenceEntry {
    std::string name;                       // "Cryptography.Hash"
    std::vector<std::string> declarations;  // "FUNCTION DATAREF Cryptography.Hash (STRING,STRING)", ...
    std::string summary;                    // the first paragraph after the declarations, on one line
    std::string text;                       // the whole entry, heading included
};

// Splits the reference into its entries, in document order. Throws
// std::runtime_error naming the line of a "### " heading that is not an entry
// (no name, or no "```text" block of declarations before the next heading).
std::vector<ReferenceEntry> ParseReference(std::string_view markdown);

// A section ("## Title") of a page read as a topic: its text before its
// first entry, heading included. Sections with nothing before their first
// entry are not topics.
struct ReferenceTopic {
    std::string title;  // "How errors reach a script"
    std::string text;
};
std::vector<ReferenceTopic> ParseTopics(std::string_view markdown);

// The declarations of a module definition text, each without its
// " : entry" part: "FUNCTION NUMBER Cryptography.FIPSMode()", "TYPE Cryptography.Key".
std::vector<std::string> DefinitionDeclarations(std::string_view definition);

// The script name a declaration line declares ("Cryptography.Hash"), or "".
std::string DeclaredName(std::string_view declaration);

}  // namespace OmbrixTool
