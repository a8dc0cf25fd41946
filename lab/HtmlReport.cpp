#include "lab/HtmlReport.h"

#include "lab/ReportPage.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace lab {
namespace {

using nlohmann::json;

constexpr char dataMark[] = "/*DATA*/null";

// What the page tells colours by.
const char* classOf(const Connection& connection) {
    if (connection.redirected) return "redirected";
    if (connection.gaveUp) return "held";
    if (connection.queries.empty()) return "plain";
    return "allowed";
}

json rowOf(const ConnectionRow& row) {
    const Connection& connection = row.connection;
    json spans = json::array();
    for (const auto& [from, to] : connection.heldSpans)
        spans.push_back({(from - connection.first + row.at) / 1000, (to - connection.first + row.at) / 1000});
    json questions = json::array();
    for (const Query& query : connection.queries)
        questions.push_back({{"url", query.url}, {"answer", answerTextOf(query)}});
    return {{"at", row.at / 1000},
            {"end", (connection.last - connection.first + row.at) / 1000},
            {"local", connection.local.text()},
            {"remote", connection.remote.text()},
            {"questions", questions},
            {"answer", answerText(connection)},
            {"held", connection.heldTime / 1000},
            {"spans", spans},
            {"packets", connection.packets},
            {"dropped", connection.dropped},
            {"class", classOf(connection)},
            {"verdict", verdictText(connection)}};
}

json totalsOf(const Totals& totals) {
    json answers = json::object();
    for (const auto& [action, count] : totals.answers)
        answers[actionName(action)] = count;
    return {{"packets", totals.packets},       {"connections", totals.connections},
            {"passed", totals.passed},         {"dropped", totals.dropped},
            {"redirected", totals.redirected}, {"held", totals.heldToTheEnd},
            {"asked", totals.asked},           {"answers", answers}};
}

// As text of a script element, which a "</script>" or "<!--" of somebody's URL would end.
std::string forScript(const json& data) {
    const std::string text = data.dump(-1, ' ', true, json::error_handler_t::replace);
    std::string safe;
    safe.reserve(text.size());
    for (const char byte : text) {
        if (byte == '<')
            safe += "\\u003c";
        else
            safe += byte;
    }
    return safe;
}

} // namespace

std::string htmlReport(const std::string& title, const std::vector<ConnectionRow>& rows,
                       const Totals& totals) {
    json data = {{"title", title}, {"totals", totalsOf(totals)}, {"rows", json::array()}};
    for (const ConnectionRow& row : rows)
        data["rows"].push_back(rowOf(row));
    std::string page = reportPage;
    return page.replace(page.find(dataMark), sizeof dataMark - 1, forScript(data));
}

void writeHtmlReport(const std::string& path, const std::string& title,
                     const std::vector<ConnectionRow>& rows, const Totals& totals) {
    std::ofstream file(path, std::ios::binary);
    file << htmlReport(title, rows, totals);
    if (!file.flush()) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
}

} // namespace lab
