#pragma once

#include <QString>
#include <string>
#include <unordered_map>
#include <utility>

// Reads "key = value" pairs from a file beside the executable. Keys are matched without
// regard to case; the first occurrence of a key wins.
class ConfigReader {
public:
    // False when the file cannot be opened; the pairs read before stay.
    bool read(std::string fileName);
    QString value(std::string key, std::string defaultValue) const;

    static bool parseLine(const std::string& line, char separator,
                          std::pair<std::string, std::string>& pair);
    static std::string trim(const std::string& text);
    static std::string toLower(std::string text);

private:
    std::unordered_map<std::string, std::string> values;
};
