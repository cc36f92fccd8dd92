#include "platform/CJsonObject.h"

#include <json/json.h>

#include <algorithm>
#include <climits>

namespace neb {
namespace {
// Deeper nesting is refused before jsoncpp sees the text: where the library is built without
// exceptions (as on a device), its own depth limit aborts the process instead of failing.
const int kMaxDepth = 1000;

// A reader of one value. The whole document must be one value and nothing after it; a member
// is read from its place in the text and may be followed by the rest of its object.
Json::CharReader* NewReader(bool wholeText) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["allowComments"] = false;
    builder["allowTrailingCommas"] = false;
    builder["strictRoot"] = false;  // a document that is not an object is read, and ignored
    builder["allowDroppedNullPlaceholders"] = false;
    builder["allowNumericKeys"] = false;
    builder["allowSingleQuotes"] = false;
    builder["stackLimit"] = kMaxDepth + 16;
    builder["failIfExtra"] = wholeText;
    builder["rejectDupKeys"] = false;  // a repeated key is read twice
    builder["allowSpecialFloats"] = false;
    builder["skipBom"] = false;  // the offsets count from the first byte of the text
    return builder.newCharReader();
}

// Whether arrays and objects nest deeper than kMaxDepth. Strings are skipped as jsoncpp skips
// them, so the count is never below the depth jsoncpp would reach.
bool TooDeep(const std::string& text) {
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxDepth) return true;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

std::size_t SkipSpace(const std::string& text, std::size_t at, std::size_t end) {
    while (at < end &&
           (text[at] == ' ' || text[at] == '\t' || text[at] == '\r' || text[at] == '\n'))
        ++at;
    return at;
}

// The closing quote of the string that opens at `open`, or `end` if there is none.
std::size_t StringEnd(const std::string& text, std::size_t open, std::size_t end) {
    for (std::size_t at = open + 1; at < end; ++at) {
        if (text[at] == '\\')
            ++at;
        else if (text[at] == '"')
            return at;
    }
    return end;
}

bool Range(const Json::Value& value, std::size_t base, std::size_t size, std::size_t& start,
           std::size_t& limit) {
    const std::ptrdiff_t s = value.getOffsetStart();
    const std::ptrdiff_t l = value.getOffsetLimit();
    if (s < 0 || l < s) return false;
    start = base + static_cast<std::size_t>(s);
    limit = base + static_cast<std::size_t>(l);
    return limit <= size;
}
}  // namespace

struct CJsonObject::Document {
    std::string text;
    Json::Value root;
    std::unique_ptr<Json::CharReader> memberReader =
        std::unique_ptr<Json::CharReader>(NewReader(false));
};

CJsonObject::CJsonObject() : CJsonObject(nullptr, nullptr, 0) {}

CJsonObject::CJsonObject(const std::string& text) : CJsonObject() { Parse(text); }

CJsonObject::CJsonObject(std::shared_ptr<Document> doc, const Json::Value* value, std::size_t base)
    : m_doc(value ? std::move(doc) : nullptr),
      m_value(value),
      m_base(base),
      m_bMembersLoaded(false),
      m_keyCursor(0),
      m_lastKey(kNoMember),
      m_bKeyStarted(false) {}

CJsonObject::CJsonObject(const CJsonObject& other) : CJsonObject() { *this = other; }

CJsonObject& CJsonObject::operator=(const CJsonObject& other) {
    if (this == &other) return *this;
    // Taken first: `other` may be one of this node's own children.
    const std::string text = other.ToString();
    Clear();
    if (!text.empty()) Parse(text);
    return *this;
}

CJsonObject::~CJsonObject() = default;

void CJsonObject::Clear() {
    m_children.clear();
    m_members.clear();
    m_firstMember.clear();
    m_bMembersLoaded = false;
    m_value = nullptr;
    m_base = 0;
    m_doc.reset();
    ResetKey();
}

bool CJsonObject::Parse(const std::string& text) {
    Clear();
    // A NUL inside the text would hide what follows it from a reader of C strings; a byte order
    // mark is not JSON.
    if (text.find('\0') != std::string::npos || text.compare(0, 3, "\xEF\xBB\xBF") == 0 ||
        TooDeep(text))
        return false;
    auto doc = std::make_shared<Document>();
    doc->text = text;
    std::unique_ptr<Json::CharReader> reader(NewReader(true));
    std::string errors;
    const char* begin = doc->text.data();
    if (!reader->parse(begin, begin + doc->text.size(), &doc->root, &errors)) return false;
    m_doc = std::move(doc);
    m_value = &m_doc->root;
    return true;
}

bool CJsonObject::IsEmpty() const { return m_value == nullptr; }

bool CJsonObject::IsArray() const { return m_value && m_value->isArray(); }

bool CJsonObject::IsObject() const { return m_value && m_value->isObject(); }

const char* CJsonObject::Kind() const {
    if (!m_value) return "";
    switch (m_value->type()) {
        case Json::objectValue:
            return "object";
        case Json::arrayValue:
            return "array";
        case Json::stringValue:
            return "string";
        case Json::intValue:
        case Json::uintValue:
        case Json::realValue:
            return "number";
        case Json::booleanValue:
            return "boolean";
        case Json::nullValue:
            return "null";
    }
    return "";
}

std::string CJsonObject::ToString() const {
    std::size_t start, limit;
    if (!m_value || !Range(*m_value, m_base, m_doc->text.size(), start, limit)) return "";
    return m_doc->text.substr(start, limit - start);
}

// jsoncpp keeps an object's members in a map by name, holding the last occurrence of a
// repeated key. The object's text gives the members in document order: each member that the
// map holds at the same place is taken from the map, any other (an earlier occurrence of a
// repeated key) is read again from its place in the text, and where it ends there goes on the
// next member. The text was read whole once, so it is well formed; if it ever looks otherwise
// the walk stops there.
void CJsonObject::LoadMembers() const {
    if (m_bMembersLoaded || !IsObject()) return;
    m_bMembersLoaded = true;
    const std::string& text = m_doc->text;
    std::size_t at, end;
    if (!Range(*m_value, m_base, text.size(), at, end) || at >= end || text[at] != '{') return;
    ++at;
    for (;;) {
        at = SkipSpace(text, at, end);
        if (at >= end || text[at] != '"') return;  // '}': the last member was read
        const std::size_t close = StringEnd(text, at, end);
        if (close >= end) return;
        Member member;
        if (std::find(text.begin() + at, text.begin() + close, '\\') != text.begin() + close) {
            Json::Value name;
            std::string errors;
            if (!m_doc->memberReader->parse(&text[at], &text[close] + 1, &name, &errors) ||
                !name.isString())
                return;
            member.key = name.asString();
        } else {
            member.key.assign(text, at + 1, close - at - 1);
        }
        at = SkipSpace(text, close + 1, end);
        if (at >= end || text[at] != ':') return;
        at = SkipSpace(text, at + 1, end);

        std::size_t start, limit;
        const Json::Value* held =
            m_value->find(member.key.data(), member.key.data() + member.key.size());
        if (held && Range(*held, m_base, text.size(), start, limit) && start == at) {
            member.value = held;
            member.base = m_base;
        } else {
            auto own = std::make_shared<Json::Value>();
            std::string errors;
            if (!m_doc->memberReader->parse(&text[at], text.data() + end, own.get(), &errors) ||
                !Range(*own, at, text.size(), start, limit) || start != at)
                return;
            member.value = own.get();
            member.base = at;
            member.own = std::move(own);
        }
        m_firstMember.emplace(member.key, m_members.size());
        m_members.push_back(std::move(member));

        at = SkipSpace(text, limit, end);
        if (at >= end || text[at] != ',') return;
        ++at;
    }
}

bool CJsonObject::GetKey(std::string& key) {
    if (!IsObject()) return false;
    LoadMembers();
    if (!m_bKeyStarted) {
        m_keyCursor = 0;
        m_bKeyStarted = true;
    }
    if (m_keyCursor >= m_members.size()) {
        ResetKey();  // the next round starts from the first member again
        return false;
    }
    m_lastKey = m_keyCursor++;
    key = m_members[m_lastKey].key;
    return true;
}

void CJsonObject::ResetKey() {
    m_keyCursor = 0;
    m_lastKey = kNoMember;
    m_bKeyStarted = false;
}

const CJsonObject::Member* CJsonObject::FindMember(const std::string& key) const {
    if (!IsObject()) return nullptr;
    LoadMembers();
    if (m_lastKey < m_members.size() && m_members[m_lastKey].key == key)
        return &m_members[m_lastKey];
    const auto first = m_firstMember.find(key);
    return first == m_firstMember.end() ? nullptr : &m_members[first->second];
}

const Json::Value* CJsonObject::Element(int index) const {
    if (!IsArray() || index < 0 || static_cast<Json::ArrayIndex>(index) >= m_value->size())
        return nullptr;
    return &(*m_value)[static_cast<Json::ArrayIndex>(index)];
}

CJsonObject& CJsonObject::Child(const Json::Value* value, std::size_t base) {
    auto& slot = m_children[value];  // a null value maps to the one empty child
    if (!slot) slot.reset(new CJsonObject(m_doc, value, base));
    return *slot;
}

CJsonObject& CJsonObject::operator[](const std::string& key) {
    const Member* member = FindMember(key);
    return member ? Child(member->value, member->base) : Child(nullptr, 0);
}

CJsonObject& CJsonObject::operator[](unsigned int index) {
    const Json::Value* element = index > INT_MAX ? nullptr : Element(static_cast<int>(index));
    return Child(element, m_base);
}

std::string CJsonObject::operator()(const std::string& key) const {
    std::string value;
    Get(key, value);
    return value;
}

std::string CJsonObject::operator()(unsigned int index) const {
    std::string value;
    if (index <= INT_MAX) Get(static_cast<int>(index), value);
    return value;
}

// jsoncpp's typed accessors abort on a value of another type where it is built without
// exceptions: each is called only after its own type test.
bool CJsonObject::Get(const std::string& key, std::string& value) const {
    const Member* member = FindMember(key);
    if (!member || !member->value->isString()) return false;
    value = member->value->asString();
    return true;
}

bool CJsonObject::Get(const std::string& key, int& value) const {
    const Member* member = FindMember(key);
    if (!member || !member->value->isInt()) return false;
    value = member->value->asInt();
    return true;
}

bool CJsonObject::Get(const std::string& key, unsigned int& value) const {
    const Member* member = FindMember(key);
    if (!member || !member->value->isUInt()) return false;
    value = member->value->asUInt();
    return true;
}

bool CJsonObject::Get(const std::string& key, bool& value) const {
    const Member* member = FindMember(key);
    if (!member || !member->value->isBool()) return false;
    value = member->value->asBool();
    return true;
}

bool CJsonObject::Get(int index, std::string& value) const {
    const Json::Value* element = Element(index);
    if (!element || !element->isString()) return false;
    value = element->asString();
    return true;
}

int CJsonObject::GetArraySize() const {
    return IsArray() ? static_cast<int>(std::min<Json::ArrayIndex>(m_value->size(), INT_MAX)) : 0;
}

}  // namespace neb
