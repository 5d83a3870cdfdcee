#include "output.h"

#include "failure.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace command {

void Table::alignRight(size_t column) {
    rightColumns_.push_back(column);
}

void Table::addRow(std::vector<std::string> cells) {
    for (std::string &cell : cells) {
        cell = printable(cell);
    }
    rows_.push_back(std::move(cells));
}

std::string Table::line(const std::vector<std::string> &cells, const std::vector<size_t> &widths) const {
    std::string text;
    for (size_t column = 0; column < cells.size(); ++column) {
        const std::string filler(widths[column] - columns(cells[column]), ' ');
        const bool right = std::find(rightColumns_.begin(), rightColumns_.end(), column) != rightColumns_.end();
        const bool last = column + 1 == cells.size();
        text += right ? filler + cells[column] : cells[column] + (last ? "" : filler);
        text += last ? "" : "  ";
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text + "\n";
}

void Table::print(const OutputForm &form) const {
    std::vector<size_t> widths(headers_.size(), 0);
    const auto widen = [&widths](const std::vector<std::string> &cells) {
        for (size_t column = 0; column < cells.size(); ++column) {
            widths[column] = std::max(widths[column], columns(cells[column]));
        }
    };
    if (form.headers) {
        widen(headers_);
    }
    std::for_each(rows_.begin(), rows_.end(), widen);
    std::string text;
    if (form.headers) {
        text += line(headers_, widths);
    }
    for (const auto &row : rows_) {
        text += line(row, widths);
    }
    command::print(text);
}

Json newDocument() {
    Json document = Json::object();
    document["schema"] = jsonSchema;
    return document;
}

void printDocument(const Json &document) {
    print(document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

Json objectOf(const std::vector<std::pair<std::string, std::string>> &pairs) {
    Json object = Json::object();
    for (const auto &pair : pairs) {
        object[pair.first] = pair.second;
    }
    return object;
}

void print(const std::string &text) {
    (void)std::fwrite(text.data(), 1, text.size(), stdout); // finishOutput tells of a failure
}

void finishOutput() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        throw Failure(exitFailed, std::string("can't write to standard output: ") + std::strerror(errno));
    }
}

} // namespace command
