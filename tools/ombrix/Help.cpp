#include "Help.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "Engine.h"
#include "ReferenceIndex.h"
#include "ReferenceText.h"

namespace OmbrixTool {

namespace {

using Ombrix::Host::Engine;

std::string_view Reference() { return {kReferenceText, kReferenceTextSize}; }
std::string_view LuaApi() { return {kLuaApiText, kLuaApiTextSize}; }

// Parsed once; the texts are part of the executable.
// The routine reference's entries.
const std::vector<ReferenceEntry>& Entries() {
    static const std::vector<ReferenceEntry> entries = ParseReference(Reference());
    return entries;
}

// The Lua API page's entries (Ombrix.*, Data.*).
const std::vector<ReferenceEntry>& LuaApiEntries() {
    static const std::vector<ReferenceEntry> entries = ParseReference(LuaApi());
    return entries;
}

const std::vector<ReferenceEntry>& AllEntries() {
    static const std::vector<ReferenceEntry> entries = [] {
        std::vector<ReferenceEntry> all = Entries();
        all.insert(all.end(), LuaApiEntries().begin(), LuaApiEntries().end());
        return all;
    }();
    return entries;
}

// The sections of both pages, in that order.
const std::vector<ReferenceTopic>& Topics() {
    static const std::vector<ReferenceTopic> topics = [] {
        std::vector<ReferenceTopic> all = ParseTopics(Reference());
        for (ReferenceTopic& topic : ParseTopics(LuaApi())) all.push_back(std::move(topic));
        return all;
    }();
    return topics;
}

// The words of a text, in lower case.
std::vector<std::string> Words(std::string_view text) {
    std::vector<std::string> words(1);
    for (const char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c)))
            words.back() += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        else if (!words.back().empty())
            words.emplace_back();
    }
    if (words.back().empty()) words.pop_back();
    return words;
}

// The first section whose title holds every word asked for (in any letter
// case); one with exactly those words comes first.
const ReferenceTopic* FindTopic(std::string_view asked) {
    const std::vector<std::string> wanted = Words(asked);
    if (wanted.empty()) return nullptr;
    const ReferenceTopic* found = nullptr;
    for (const ReferenceTopic& topic : Topics()) {
        const std::vector<std::string> title = Words(topic.title);
        if (title == wanted) return &topic;
        const bool holds = std::all_of(wanted.begin(), wanted.end(), [&](const std::string& word) {
            return std::find(title.begin(), title.end(), word) != title.end();
        });
        if (holds && !found) found = &topic;
    }
    return found;
}

const ReferenceEntry* Find(std::string_view name) {
    const std::vector<ReferenceEntry>& entries = AllEntries();
    for (const ReferenceEntry& entry : entries)
        if (entry.name == name) return &entry;
    // "Hash" for "Cryptography.Hash", when only one namespace has it.
    const ReferenceEntry* found = nullptr;
    for (const ReferenceEntry& entry : entries) {
        const std::string_view shortName = std::string_view(entry.name).substr(entry.name.find('.') + 1);
        if (name.find('.') == std::string_view::npos && shortName == name) {
            if (found) return nullptr;
            found = &entry;
        }
    }
    return found;
}

// The first sentence of a summary, cut to fit the rest of a listing line.
std::string FirstSentence(const std::string& summary, size_t width) {
    const size_t stop = summary.find(". ");
    std::string sentence = summary.substr(0, stop == std::string::npos ? summary.size() : stop + 1);
    if (sentence.size() > width) sentence = sentence.substr(0, width - 3) + "...";
    return sentence;
}

bool InNamespace(const std::string& name, const std::string& space) {
    return name.size() > space.size() && name.compare(0, space.size(), space) == 0 && name[space.size()] == '.';
}

// A namespace's routines: those the reference describes in its order (by
// family), then any others in declaration order.
std::vector<std::string> Ordered(Engine& engine, const std::string& space) {
    const std::vector<std::string> declared = engine.RoutineNames(space);
    std::vector<std::string> ordered;
    for (const ReferenceEntry& entry : Entries()) {
        const std::string routine = entry.name.substr(entry.name.find('.') + 1);
        if (InNamespace(entry.name, space) && std::find(declared.begin(), declared.end(), routine) != declared.end())
            ordered.push_back(routine);
    }
    for (const std::string& routine : declared)
        if (std::find(ordered.begin(), ordered.end(), routine) == ordered.end()) ordered.push_back(routine);
    return ordered;
}

std::string Listing(Engine& engine) {
    constexpr size_t kColumn = 36, kLine = 100;
    std::string text =
        "Namespaces and routines; Ombrix.help(\"Namespace.Name\") prints one entry,\n"
        "Ombrix.help(\"Title\") a section.\n";
    std::vector<std::string> spaces = engine.Namespaces();
    // Namespaces the reference describes first.
    std::stable_partition(spaces.begin(), spaces.end(), [](const std::string& space) {
        return std::any_of(Entries().begin(), Entries().end(),
                           [&](const ReferenceEntry& entry) { return InNamespace(entry.name, space); });
    });
    for (const std::string& space : spaces) {
        text += "\n" + space + "\n";
        for (const std::string& routine : Ordered(engine, space)) {
            const ReferenceEntry* entry = Find(space + "." + routine);
            std::string line = "  " + routine;
            if (entry && !entry->summary.empty()) {
                line.resize(std::max(line.size() + 2, kColumn), ' ');
                line += FirstSentence(entry->summary, kLine - line.size());
            }
            text += line + "\n";
        }
        std::string types;
        for (const ReferenceEntry& entry : Entries())
            if (InNamespace(entry.name, space) && entry.declarations.front().compare(0, 5, "TYPE ") == 0)
                types += (types.empty() ? "" : ", ") + entry.name;
        if (!types.empty()) text += "  types: " + types + "\n";
    }
    // The command's own functions, by their table.
    std::string space;
    for (const ReferenceEntry& entry : LuaApiEntries()) {
        const std::string entrySpace = entry.name.substr(0, entry.name.find('.'));
        if (entrySpace != space) text += "\n" + (space = entrySpace) + "\n";
        std::string line = "  " + entry.name.substr(entry.name.find('.') + 1);
        line.resize(std::max(line.size() + 2, kColumn), ' ');
        text += line + FirstSentence(entry.summary, kLine - line.size()) + "\n";
    }
    text += "\nSections\n";
    for (const ReferenceTopic& topic : Topics()) text += "  " + topic.title + "\n";
    return text;
}

// A routine the engine knows but the reference does not describe (the
// host's own JSON and Net routines): its declarations.
std::string Declarations(Engine& engine, std::string_view name) {
    std::string text;
    for (const auto* declaration : engine.Overloads(name)) text += declaration->Text() + "\n";
    if (!text.empty()) text += "(a routine of the host; the reference describes the Cryptography module)\n";
    return text;
}

// Ombrix.help([name]): prints an entry, or the listing without a name.
// Raises "Ombrix.help: no entry for 'NAME' ..." for a name nobody declares.
int Help(lua_State* L) {
    auto& engine = *static_cast<Engine*>(lua_touserdata(L, lua_upvalueindex(1)));
    const char* name = lua_isnoneornil(L, 1) ? nullptr : luaL_checkstring(L, 1);
    char failure[512] = {};
    {  // C++ objects end here, before a Lua error can unwind past them
        try {
            std::string text;
            if (!name) {
                text = Listing(engine);
            } else if (const ReferenceEntry* entry = Find(name)) {
                text = entry->text;
            } else if (const ReferenceTopic* topic = FindTopic(name)) {
                text = topic->text;
            } else {
                text = Declarations(engine, name);
                if (text.empty())
                    std::snprintf(failure, sizeof failure,
                                  "Ombrix.help: no entry for '%s'; Ombrix.help() lists the routines and sections",
                                  name);
            }
            std::fwrite(text.data(), 1, text.size(), stdout);
            std::fflush(stdout);
        } catch (const std::exception& e) {
            std::snprintf(failure, sizeof failure, "Ombrix.help: %s", e.what());
        }
    }
    if (failure[0]) {
        lua_pushstring(L, failure);
        return lua_error(L);
    }
    return 0;
}

}  // namespace

void OpenHelp(lua_State* L, Engine& engine) {
    lua_pushlightuserdata(L, &engine);
    lua_pushcclosure(L, Help, 1);
    lua_setfield(L, -2, "help");
}

}  // namespace OmbrixTool
