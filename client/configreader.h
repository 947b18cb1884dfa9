#pragma once

#include <QString>
#include <string>
#include <unordered_map>
#include <utility>

// Reads "key = value" pairs from a file beside the executable. Keys are matched without
// regard to case; the first occurrence of a key wins.
class ConfigReader {
public:
    // False when the file cannot be read: only a plain file of at most 64 KiB is. The pairs read
    // before stay. A UTF-8 byte-order mark at the start is skipped.
    bool read(std::string fileName);
    QString value(std::string key, std::string defaultValue) const;

    static bool parseLine(const std::string& line, char separator,
                          std::pair<std::string, std::string>& pair);
    static std::string trim(const std::string& text);
    static std::string toLower(std::string text);

private:
    std::unordered_map<std::string, std::string> values;
};
