#include "output.h"

#include "failure.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <numeric>

namespace command {

void Table::addRow(const std::vector<std::string> &cells) {
    for (const std::string &cell : cells) {
        add(cell);
    }
}

void Table::add(std::string_view cell) {
    const size_t begin = text_.size();
    const size_t columns = appendPrintable(text_, cell);
    cells_.push_back({text_.size() - begin, columns});
}

void Table::arrange(const std::vector<size_t> &order) {
    const size_t columns = rightColumns_.size();
    std::vector<size_t> begins(1, 0); // of the cells' texts
    for (const Cell &cell : cells_) {
        begins.push_back(begins.back() + cell.size);
    }
    const auto rowEnd = [columns](size_t row) { return (row + 1) * columns; };
    std::vector<Cell> cells(cells_.begin(), cells_.begin() + static_cast<ptrdiff_t>(columns));
    std::string text(text_, 0, begins[columns]);
    for (const size_t number : order) {
        const size_t row = number + 1; // behind the headers
        for (size_t place = rowEnd(row - 1); place < rowEnd(row); ++place) {
            cells.push_back(cells_[place]);
        }
        text.append(text_, begins[rowEnd(row - 1)], begins[rowEnd(row)] - begins[rowEnd(row - 1)]);
    }
    cells_ = std::move(cells);
    text_ = std::move(text);
}

void Table::appendLine(std::string &result, const Cell *cells, const char *text,
                       const std::vector<size_t> &widths) const {
    const size_t begin = result.size();
    for (size_t column = 0; column < widths.size(); ++column) {
        const size_t filler = widths[column] - cells[column].columns;
        const bool last = column + 1 == widths.size();
        if (rightColumns_[column]) {
            result.append(filler, ' ');
        }
        result.append(text, cells[column].size);
        text += cells[column].size;
        if (!last) {
            result.append((rightColumns_[column] ? 0 : filler) + 2, ' ');
        }
    }
    while (result.size() > begin && result.back() == ' ') {
        result.pop_back();
    }
    result += '\n';
}

void Table::print(const OutputForm &form) const {
    const size_t columns = rightColumns_.size();
    std::vector<size_t> widths(columns, 0);
    for (size_t place = form.headers ? 0 : columns; place < cells_.size(); ++place) {
        widths[place % columns] = std::max(widths[place % columns], cells_[place].columns);
    }
    std::string result;
    result.reserve(text_.size() + cells_.size() / columns * std::accumulate(widths.begin(), widths.end(), 2 * columns));
    const char *text = text_.data();
    for (size_t place = 0; place < cells_.size(); place += columns) {
        if (place > 0 || form.headers) {
            appendLine(result, &cells_[place], text, widths);
        }
        for (size_t column = 0; column < columns; ++column) {
            text += cells_[place + column].size;
        }
    }
    command::print(result);
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
