#include "platform/CJsonObject.h"

#include <cjson/cJSON.h>

#include <climits>
#include <cmath>

namespace neb {
namespace {
std::shared_ptr<cJSON> Own(cJSON* doc) {
    return doc ? std::shared_ptr<cJSON>(doc, [](cJSON* d) { cJSON_Delete(d); }) : nullptr;
}

bool Integral(const cJSON* item, double low, double high, double& value) {
    if (!cJSON_IsNumber(item)) return false;
    value = item->valuedouble;
    return std::isfinite(value) && std::floor(value) == value && value >= low && value <= high;
}
}  // namespace

CJsonObject::CJsonObject()
    : m_node(nullptr), m_keyCursor(nullptr), m_lastKey(nullptr), m_bKeyStarted(false) {}

CJsonObject::CJsonObject(const std::string& text) : CJsonObject() { Parse(text); }

CJsonObject::CJsonObject(cJSON* node, std::shared_ptr<cJSON> root)
    : m_root(std::move(root)),
      m_node(node),
      m_keyCursor(nullptr),
      m_lastKey(nullptr),
      m_bKeyStarted(false) {}

CJsonObject::CJsonObject(const CJsonObject& other) : CJsonObject() { *this = other; }

CJsonObject& CJsonObject::operator=(const CJsonObject& other) {
    if (this == &other) return *this;
    Clear();
    if (other.m_node) {
        m_root = Own(cJSON_Duplicate(other.m_node, 1));
        m_node = m_root.get();
    }
    return *this;
}

CJsonObject::~CJsonObject() = default;

void CJsonObject::Clear() {
    m_children.clear();
    m_elemCursor = nullptr;
    m_elemIndex = -1;
    m_node = nullptr;
    m_root.reset();
    ResetKey();
}

bool CJsonObject::Parse(const std::string& text) {
    Clear();
    // A NUL inside the text would end cJSON's view of it early and hide what follows.
    if (text.find('\0') != std::string::npos) return false;
    const char* end = nullptr;
    cJSON* doc = cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, &end, 1);
    if (!doc) return false;
    m_root = Own(doc);
    m_node = doc;
    return true;
}

bool CJsonObject::IsEmpty() const { return m_node == nullptr; }

bool CJsonObject::IsArray() const { return cJSON_IsArray(m_node); }

bool CJsonObject::IsObject() const { return cJSON_IsObject(m_node); }

const char* CJsonObject::Kind() const {
    if (cJSON_IsObject(m_node)) return "object";
    if (cJSON_IsArray(m_node)) return "array";
    if (cJSON_IsString(m_node)) return "string";
    if (cJSON_IsNumber(m_node)) return "number";
    if (cJSON_IsBool(m_node)) return "boolean";
    if (cJSON_IsNull(m_node)) return "null";
    return "";
}

std::string CJsonObject::ToString() const {
    if (!m_node) return "";
    char* text = cJSON_PrintUnformatted(m_node);
    std::string out = text ? text : "";
    cJSON_free(text);
    return out;
}

bool CJsonObject::GetKey(std::string& key) {
    if (!cJSON_IsObject(m_node)) return false;
    if (!m_bKeyStarted) {
        m_keyCursor = m_node->child;
        m_bKeyStarted = true;
    }
    if (!m_keyCursor) {
        ResetKey();  // the next round starts from the first member again
        return false;
    }
    m_lastKey = m_keyCursor;
    key = m_keyCursor->string ? m_keyCursor->string : "";
    m_keyCursor = m_keyCursor->next;
    return true;
}

void CJsonObject::ResetKey() {
    m_keyCursor = nullptr;
    m_lastKey = nullptr;
    m_bKeyStarted = false;
}

cJSON* CJsonObject::Member(const std::string& key) const {
    if (!cJSON_IsObject(m_node)) return nullptr;
    if (m_lastKey && m_lastKey->string && key == m_lastKey->string) return m_lastKey;
    for (cJSON* c = m_node->child; c; c = c->next)
        if (c->string && key == c->string) return c;
    return nullptr;
}

cJSON* CJsonObject::Element(int index) const {
    if (!cJSON_IsArray(m_node) || index < 0) return nullptr;
    cJSON* item;
    int at;
    if (m_elemCursor && index >= m_elemIndex) {
        item = m_elemCursor;
        at = m_elemIndex;
    } else {
        item = m_node->child;
        at = 0;
    }
    for (; item && at < index; ++at) item = item->next;
    if (item) {
        m_elemCursor = item;
        m_elemIndex = at;
    }
    return item;
}

CJsonObject& CJsonObject::Child(cJSON* node) {
    auto& slot = m_children[node];  // a null node maps to the one empty child
    if (!slot) slot.reset(new CJsonObject(node, node ? m_root : nullptr));
    return *slot;
}

CJsonObject& CJsonObject::operator[](const std::string& key) { return Child(Member(key)); }

CJsonObject& CJsonObject::operator[](unsigned int index) {
    return Child(index > INT_MAX ? nullptr : Element(static_cast<int>(index)));
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

bool CJsonObject::Get(const std::string& key, std::string& value) const {
    const cJSON* item = Member(key);
    if (!cJSON_IsString(item) || !item->valuestring) return false;
    value = item->valuestring;
    return true;
}

bool CJsonObject::Get(const std::string& key, int& value) const {
    double d;
    if (!Integral(Member(key), INT_MIN, INT_MAX, d)) return false;
    value = static_cast<int>(d);
    return true;
}

bool CJsonObject::Get(const std::string& key, unsigned int& value) const {
    double d;
    if (!Integral(Member(key), 0, UINT_MAX, d)) return false;
    value = static_cast<unsigned int>(d);
    return true;
}

bool CJsonObject::Get(const std::string& key, bool& value) const {
    const cJSON* item = Member(key);
    if (!cJSON_IsBool(item)) return false;
    value = cJSON_IsTrue(item);
    return true;
}

bool CJsonObject::Get(int index, std::string& value) const {
    const cJSON* item = Element(index);
    if (!cJSON_IsString(item) || !item->valuestring) return false;
    value = item->valuestring;
    return true;
}

int CJsonObject::GetArraySize() const {
    return cJSON_IsArray(m_node) ? cJSON_GetArraySize(m_node) : 0;
}

}  // namespace neb
