#include "host/XMLParser.h"

// Placeholder until the scanner lands: every question finds nothing.
struct XMLParser::Index {};

XMLParser::XMLParser(const char*, int) : index_(new Index) {}
XMLParser::~XMLParser() { delete index_; }
XMLParser::Value XMLParser::getValue(const LightweightString<char>&, unsigned int) const { return {}; }
std::vector<XMLParser::Value> XMLParser::getValues(const LightweightString<char>&) const { return {}; }
XMLParser::Value XMLParser::getSection(const LightweightString<char>&, unsigned int) const { return {}; }
std::vector<XMLParser::Value> XMLParser::getSections(const LightweightString<char>&) const { return {}; }
std::vector<XMLParser::Value> XMLParser::getSections_TopLevel(const LightweightString<char>&) const {
    return {};
}
