#include "export/XmlFile.h"

namespace XML {

namespace {
void pushAttributes(tinyxml2::XMLPrinter& printer, const AttribList& attribs) {
    for (const LightweightString<wchar_t>& a : attribs) {
        auto [name, value] = getAttrib(a);
        printer.PushAttribute(name.c_str(), value.c_str());
    }
}
}  // namespace

XmlFile::XmlFile() {
    printer.PushDeclaration("xml version=\"1.0\" encoding=\"UTF-8\"");
}

void XmlFile::saveAndClose() {
    if (!file) return;
    printer.CloseElement(false);
    // The printer's size counts its terminating zero, which is not written.
    file->write(printer.CStr(), static_cast<unsigned>(printer.CStrSize() - 1));
}

xmlElement::xmlElement(XmlFile& file, const char* name) : file_(file) {
    file_.printer.OpenElement(name, false);
}

xmlElement::xmlElement(XmlFile& file, const char* name, const AttribList& attribs) : file_(file) {
    file_.printer.OpenElement(name, false);
    pushAttributes(file_.printer, attribs);
}

xmlElement::~xmlElement() {
    file_.printer.CloseElement(false);
}

xmlInlineElement::xmlInlineElement(XmlFile& file, const char* name, const wchar_t* text) {
    file.printer.OpenElement(name, false);
    file.printer.PushText(toUTF8(std::wstring_view(text ? text : L"")).c_str(), false);
    file.printer.CloseElement(false);
}

xmlInlineElement::xmlInlineElement(XmlFile& file, const char* name, const AttribList& attribs) {
    file.printer.OpenElement(name, false);
    pushAttributes(file.printer, attribs);
    file.printer.CloseElement(false);
}

xmlInlineElement::xmlInlineElement(XmlFile& file, const char* name, const char* text,
                                   const AttribList& attribs) {
    file.printer.OpenElement(name, false);
    pushAttributes(file.printer, attribs);
    file.printer.PushText(text ? text : "", false);
    file.printer.CloseElement(false);
}

std::pair<LightweightString<char>, LightweightString<char>> getAttrib(
    const LightweightString<wchar_t>& attribute) {
    std::wstring_view s = attribute.view();
    long pos = -1;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == L'=') {
            pos = static_cast<long>(i);
            break;
        }
    }
    std::wstring_view name = pos < 0 ? s : s.substr(0, static_cast<size_t>(pos));
    std::wstring_view value;
    size_t start = static_cast<size_t>(pos + 2);
    if (start < s.size()) {
        size_t quote = s.find(L'"', start);
        value = s.substr(
            start, quote == std::wstring_view::npos ? std::wstring_view::npos : quote - start);
    }
    return {toUTF8(name), toUTF8(value)};
}

LightweightString<wchar_t> makeAttrib(const char* name, const LightweightString<wchar_t>& value) {
    return Qv::WStringFromAscii(name) + L"=\"" + value + L"\"";
}

}  // namespace XML
