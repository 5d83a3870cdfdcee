// What the command prints: aligned tables for people, JSON documents for programs.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace command {

using Json = nlohmann::ordered_json;

struct OutputForm {
    bool json = false;
    bool headers = true;
    bool utc = false;
};

// A column is as wide as its widest text; the last one isn't filled up.
class Table {
public:
    explicit Table(const std::vector<std::string> &headers) : rightColumns_(headers.size(), false) { addRow(headers); }

    // Numbers of a column stand at its right edge.
    void alignRight(size_t column) { rightColumns_[column] = true; }
    // A row has as many cells as there are headers.
    void addRow(const std::vector<std::string> &cells);
    // The next cell of a row, for those who make a row cell by cell.
    void add(std::string_view cell);
    // Puts the rows into another order: of the numbers, from 0, that they have now.
    void arrange(const std::vector<size_t> &order);
    void print(const OutputForm &form) const;

private:
    struct Cell {
        size_t size;
        size_t columns;
    };

    void appendLine(std::string &result, const Cell *cells, const char *text, const std::vector<size_t> &widths) const;

    // A table may have thousands of rows: the texts of all cells stand one behind the other, the headers' first.
    std::string text_;
    std::vector<Cell> cells_;
    std::vector<bool> rightColumns_; // one a column
};

// Number of the JSON documents' form. A change that breaks readers raises it.
constexpr int jsonSchema = 1;

// Begins a document: {"schema": 1}.
[[nodiscard]] Json newDocument();
// Prints it, valid UTF-8 whatever bytes its texts have.
void printDocument(const Json &document);

// Texts with their values as an object.
[[nodiscard]] Json objectOf(const std::vector<std::pair<std::string, std::string>> &pairs);

// Writes to standard output as it is.
void print(const std::string &text);

// Flushes standard output; throws a Failure when what was printed didn't get through.
void finishOutput();

} // namespace command
