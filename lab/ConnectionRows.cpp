#include "lab/ConnectionRows.h"

#include "lab/CsvFile.h"
#include "lab/TableReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

namespace lab {
namespace {

std::string withoutNumbers(std::string text) {
    text.erase(
        std::remove_if(text.begin(), text.end(), [](unsigned char byte) { return std::isdigit(byte); }),
        text.end());
    return text;
}

// The places of the rows that begin a kind, seldom kinds first.
std::vector<std::size_t> firstOfEachKind(const std::vector<ConnectionRow>& rows) {
    struct Kind {
        std::size_t first;
        std::size_t count;
    };
    std::map<std::string, Kind> kinds;
    for (std::size_t i = 0; i < rows.size(); ++i)
        ++kinds.try_emplace(kindOf(rows[i].connection), Kind{i, 0}).first->second.count;
    std::vector<Kind> order;
    order.reserve(kinds.size());
    for (const auto& [name, kind] : kinds)
        order.push_back(kind);
    std::sort(order.begin(), order.end(), [](const Kind& one, const Kind& other) {
        return one.count != other.count ? one.count < other.count : one.first < other.first;
    });
    std::vector<std::size_t> places;
    places.reserve(order.size());
    for (const Kind& kind : order)
        places.push_back(kind.first);
    return places;
}

} // namespace

std::string kindOf(const Connection& connection) {
    return withoutNumbers(verdictText(connection) + "/" + answerText(connection));
}

std::vector<ConnectionRow> chosenRows(std::vector<ConnectionRow> rows, std::size_t most) {
    std::stable_sort(rows.begin(), rows.end(),
                     [](const ConnectionRow& one, const ConnectionRow& other) { return one.at < other.at; });
    std::set<std::size_t> places;
    for (const std::size_t place : firstOfEachKind(rows))
        if (places.size() < most) places.insert(place);
    std::vector<std::size_t> others;
    for (std::size_t i = 0; i < rows.size(); ++i)
        if (!rows[i].connection.queries.empty() && !places.count(i)) others.push_back(i);
    const std::size_t wanted = std::min(most - places.size(), others.size());
    for (std::size_t i = 0; i < wanted; ++i)
        places.insert(others[i * others.size() / wanted]);
    std::vector<ConnectionRow> chosen;
    chosen.reserve(places.size());
    for (const std::size_t place : places)
        chosen.push_back(std::move(rows[place]));
    return chosen;
}

const char connectionColumns[] = "at,local,remote,questions,url,answer,held,packets,verdict";

std::string connectionFields(const Connection& connection, std::int64_t at) {
    return fmt::format("{:.6f},{},{},{},{},{},{:.6f},{},{}", static_cast<double>(at) / 1e6,
                       connection.local.text(), connection.remote.text(), connection.queries.size(),
                       csvField(connection.queries.empty() ? "" : connection.queries.back().url),
                       csvField(answerText(connection)), static_cast<double>(connection.heldTime) / 1e6,
                       connection.packets, csvField(verdictText(connection)));
}

void writeCsv(const std::string& path, const std::vector<ConnectionRow>& rows) {
    CsvFile file(path, connectionColumns);
    for (const ConnectionRow& row : rows)
        file.row(connectionFields(row.connection, row.at));
    file.finish();
}

} // namespace lab
