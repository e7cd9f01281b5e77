// props: every MAPI property of a TNEF file, readable: the message's, and with options each
// attachment's and each recipient's, with published names and typed values.

#include <unistd.h>

#include <string>
#include <vector>

#include "prop_format.h"
#include "tnef/platform/er_escape.h"
#include "tnef/tnef_reader.h"
#include "tool.h"

namespace {

nlohmann::json listJson(int fd, const std::vector<TnefPropEntry>& entries) {
    nlohmann::json list = nlohmann::json::array();
    for (const TnefPropEntry& e : entries) list.push_back(propJson(fd, e));
    return list;
}

nlohmann::json tablesJson(int fd, const std::vector<std::vector<TnefPropEntry>>& rows) {
    nlohmann::json table = nlohmann::json::array();
    for (const auto& row : rows) table.push_back(listJson(fd, row));
    return table;
}

std::string listText(int fd, const std::vector<TnefPropEntry>& entries, const char* indent) {
    std::string out;
    for (const TnefPropEntry& e : entries) out += indent + propLine(fd, e) + "\n";
    return out;
}

std::string tablesText(int fd, const char* what, const std::vector<std::vector<TnefPropEntry>>& rows) {
    std::string out;
    for (size_t i = 0; i < rows.size(); ++i)
        out += std::string(what) + " " + std::to_string(i + 1) + ":\n" + listText(fd, rows[i], "  ");
    return out;
}

struct PropsRequest {
    bool attachments = false;
    bool recipients = false;
};

int report(const GlobalOptions& g, const std::string& file, int fd, const TnefMessageView& v,
           const PropsRequest& r) {
    const std::vector<std::string> warnings = readWarnings(v.flags);
    if (!passWarnings(g, file, warnings)) return kExitError;
    if (g.json) {
        nlohmann::json j = {{"file", file}, {"properties", listJson(fd, v.properties)}};
        if (r.attachments) j["attachments"] = tablesJson(fd, v.attachmentProperties);
        if (r.recipients) j["recipients"] = tablesJson(fd, v.recipients);
        j["warnings"] = warnings;
        return writeOut(j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n")
                   ? kExitOk
                   : kExitError;
    }
    std::string out = listText(fd, v.properties, "");
    if (r.recipients) out += tablesText(fd, "recipient", v.recipients);
    if (r.attachments) out += tablesText(fd, "attachment", v.attachmentProperties);
    return writeOut(out) ? kExitOk : kExitError;
}

int cmdProps(const GlobalOptions& g, const ParsedArgs& parsed) {
    const std::string& file = parsed.operands[0];
    const int fd = openInput(file);
    if (fd < 0) return kExitError;
    const PropsRequest request{parsed.has("--attachments"), parsed.has("--recipients")};
    int status = kExitError;
    try {
        TnefMessageView view;
        tnef_ReadMessage(fd, &view);
        status = report(g, file, fd, view, request);
    } catch (const Escape& e) {
        if (g.json)
            writeOut(nlohmann::json({{"file", file}, {"error", escapeLine(e)}}).dump() + "\n");
        reportEscape(file, e);
    }
    ::close(fd);
    return status;
}

}  // namespace

const CommandSpec kPropsCommand = {
    "props", "FILE", 1, 1,
    "every MAPI property of a TNEF file, readable",
    "Prints every MAPI property of the message, one per line:\n"
    "  PR_SUBJECT (0x0037001F, PT_UNICODE) = \"Quarterly report\"\n"
    "named properties as {PSETID_Appointment}/0x8205 PidLidBusyStatus, times in ISO 8601 UTC,\n"
    "binaries in hex (long ones cut, with their length).\n"
    "\n"
    "With --json: {\"file\",\"properties\":[{\"tag\",\"name\",\"type\",\"set\",\"id\" or \"string_id\",\"value\"}],\n"
    "\"attachments\":[[...]],\"recipients\":[[...]],\"warnings\":[...]}.",
    {
        {"--attachments", nullptr, "each attachment's properties too"},
        {"--recipients", nullptr, "each recipient's properties too"},
    },
    cmdProps,
};
