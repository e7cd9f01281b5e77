// store check: what interrupted decodes (a killed process, a full disk) left in the server
// home, and with --repair its removal.

#include <cstdlib>
#include <string>
#include <vector>

#include "json_writer.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/store_check.h"
#include "tool.h"

namespace {

bool parseAge(const std::string& text, int64_t* age) {
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < 0) return false;
    *age = value;
    return true;
}

std::string renderReport(const StoreCheckReport& r) {
    std::string out;
    for (const StoreFinding& f : r.findings)
        out += f.kind + "  " + f.path + "  " + f.detail + (f.removed ? "  (removed)" : "") + "\n";
    out += std::to_string(r.messages) + " messages read, " + std::to_string(r.findings.size()) +
           " findings, " + std::to_string(r.remaining()) + " remaining\n";
    return out;
}

int cmdStore(const GlobalOptions& g, const ParsedArgs& p) {
    if (p.operands.front() != "check")
        return usageError("store", "the one action is check");
    int64_t age = STORE_CHECK_DEFAULT_AGE;
    if (p.has("--min-age") && !parseAge(p.get("--min-age"), &age))
        return usageError("store", "--min-age takes a number of seconds");
    StoreCheckReport r;
    try {
        r = store_Check(p.has("--repair"), age);
    } catch (const Escape& e) {
        reportEscape(os_GetHome(), e);
        return kExitError;
    }
    const int status = r.remaining() == 0 ? kExitOk : kExitNotFound;
    if (!g.json) return writeOut(renderReport(r)) ? status : kExitError;
    JsonWriter j;
    j.beginObject().field("messages", r.messages).key("findings").beginArray();
    for (const StoreFinding& f : r.findings)
        j.beginObject()
            .field("kind", f.kind)
            .field("path", f.path)
            .field("detail", f.detail)
            .field("removable", f.removable)
            .field("removed", f.removed)
            .endObject();
    j.endArray().field("remaining", r.remaining()).endObject();
    return writeOut(j.text()) ? status : kExitError;
}

}  // namespace

const CommandSpec kStoreCommand = {
    "store", "check", 1, 1,
    "what interrupted work left in the store; --repair removes it",
    "Reads the whole store under the server home and reports what does not belong to a whole\n"
    "message: staged messages whose decode never finished, data items, temporary items and kept\n"
    "objects that no message names, message folders without a readable message file, parts that\n"
    "no record counts, stray files, and records that name an object that is gone. Work under way\n"
    "is never reported or touched: a staged message whose process still runs, an item of a\n"
    "running process.\n"
    "\n"
    "Exit status: 0 the store is consistent (after the repair, when asked), 1 findings remain, 2\n"
    "error.\n"
    "With --json: {\"messages\",\"findings\":[{\"kind\",\"path\",\"detail\",\"removable\",\"removed\"}],\n"
    "\"remaining\"}.",
    {
        {"--repair", nullptr, "remove every leftover that no message references"},
        {"--min-age", "SECONDS", "only leftovers at least this old count as removable (default 3600; 0 when no other process uses the store)"},
    },
    cmdStore,
};
