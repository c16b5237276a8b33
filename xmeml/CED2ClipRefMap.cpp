// The xmeml writer's map of registered shots, and Premiere's marker colours.
#include <cstdint>
#include <cstring>

#include "host/Edit.h"
#include "xmeml/FCP5XMLWriter.h"

namespace XML {

CED2ClipRefMapRec::CED2ClipRefMapRec(const Cookie& cookie, CED2* shot, bool ghost)
    : ced2(shot), isGhost(ghost), ref(cookie.asWString()), nextSameRef_(CED2ClipRefMap::npos) {
    appendUtf8(refUtf8, ref.view());
    fileId = "file_" + refUtf8 + "_0";
    if (shot) appendUtf8(nameUtf8, shot->get_editName().view());
}

LightweightString<wchar_t> CED2ClipRefMapRec::getFileElementRef(unsigned int) const {
    return ref + L"_0";
}

void CED2ClipRefMapRec::makeMarks() {
    if (chanDefined) return;
    chanCount = ced2 ? ced2->channels.size() : 0;
    chanDefined.reset(new unsigned char[chanCount ? chanCount : 1]);
    std::memset(chanDefined.get(), 0, chanCount ? chanCount : 1);
}

bool CED2ClipRefMapRec::isChanFileDefined(unsigned int channel) {
    makeMarks();
    // A shot with no video numbers its sound channels from 1.
    long index = static_cast<long>(channel);
    if (ced2 && ced2->GetNumVideoChannels() == 0) --index;
    if (index < 0 || static_cast<std::size_t>(index) >= chanCount) return false;
    return chanDefined[static_cast<std::size_t>(index)] != 0;
}

void CED2ClipRefMapRec::defineAll() {
    makeMarks();
    std::memset(chanDefined.get(), 1, chanCount);
}

void CED2ClipRefMapRec::dropMarks() {
    chanDefined.reset();
    chanCount = 0;
}

std::size_t CED2ClipRefMap::KeyHash::operator()(const Key& k) const noexcept {
    // The words of a cookie are random already: mixed, not digested.
    std::uint64_t a = (std::uint64_t{k.uuid.words[0]} << 32) | k.uuid.words[1];
    std::uint64_t b = (std::uint64_t{k.uuid.words[2]} << 32) | k.uuid.words[3];
    std::uint64_t c = k.type | (std::uint64_t{k.channel} << 8) | (std::uint64_t{k.tail} << 16);
    std::uint64_t h = (a ^ (b * 0x9E3779B97F4A7C15ull) ^ (c * 0xC2B2AE3D27D4EB4Full));
    h ^= h >> 29;
    return static_cast<std::size_t>(h * 0xBF58476D1CE4E5B9ull);
}

void CED2ClipRefMap::addRef(const Cookie& cookie, CED2* ced2, bool isGhost) {
    std::size_t at = records_.size();
    records_.emplace_back(cookie, ced2, isGhost);
    auto [it, fresh] = index_.try_emplace(Key(cookie), Chain{at, at});
    if (!fresh) {
        records_[it->second.last].nextSameRef_ = at;
        it->second.last = at;
    }
}

bool CED2ClipRefMap::findRef(const Cookie& cookie, CED2ClipRefMapRec** rec) {
    auto it = index_.find(Key(cookie));
    if (it == index_.end()) return false;
    if (rec) *rec = &records_[it->second.first];
    return true;
}

void CED2ClipRefMap::setDefined(const Cookie& cookie, unsigned int) {
    auto it = index_.find(Key(cookie));
    if (it == index_.end()) return;
    for (std::size_t i = it->second.first; i != npos; i = records_[i].nextSameRef_)
        records_[i].defineAll();
}

void CED2ClipRefMap::clear() {
    index_.clear();
    records_.clear();
}

const pproColour::Row pproColour::table[] = {
    {0xFFFFFF, L"4294967295"},  // white
    {0xFF0000, L"4281740498"},  // red
    {0xFFFF00, L"4281049552"},  // yellow
    {0x00FF00, L"4200000000"},  // green
    {0x00FFFF, L"4292277273"},  // cyan
    {0x0000FF, L"4294741314"},  // blue
    {0xFF00FF, L"4289825711"},  // magenta
    {0x000000, L"4200000000"},  // black, sharing green's text
    {0, L""},
};

bool pproColour::getStr(unsigned int colour, LightweightString<wchar_t>* str) {
    for (const Row* row = table; row->text[0] != L'\0'; ++row) {
        if (row->colour != colour) continue;
        if (str) *str = row->text;
        return true;
    }
    return false;
}

}  // namespace XML
