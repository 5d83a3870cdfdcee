// What the command prints: aligned tables for people, JSON documents for programs.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
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
    explicit Table(std::vector<std::string> headers) : headers_(std::move(headers)) {}

    // Numbers of a column stand at its right edge.
    void alignRight(size_t column);
    void addRow(std::vector<std::string> cells);
    void print(const OutputForm &form) const;

private:
    [[nodiscard]] std::string line(const std::vector<std::string> &cells, const std::vector<size_t> &widths) const;

    std::vector<std::string> headers_;
    std::vector<std::vector<std::string>> rows_;
    std::vector<size_t> rightColumns_;
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
