#ifndef VORN_PLATFORM_CJSONOBJECT_H
#define VORN_PLATFORM_CJSONOBJECT_H

#include <map>
#include <memory>
#include <string>

struct cJSON;

namespace neb {

// A JSON node with value semantics, over cJSON. Members keep document order and repeated keys.
// Child nodes returned by operator[] are the same object on every call, so a key iteration
// started on an element goes on from call to call.
//
// Numbers: a JSON number is read as int or unsigned int only when it is integral and in range;
// a float (1.5) or a negative number read as unsigned is refused (Get returns false and leaves
// the target unchanged).
class CJsonObject {
public:
    CJsonObject();
    explicit CJsonObject(const std::string& text);
    CJsonObject(const CJsonObject& other);
    CJsonObject& operator=(const CJsonObject& other);
    ~CJsonObject();

    bool Parse(const std::string& text);
    void Clear();
    bool IsEmpty() const;
    bool IsArray() const;
    bool IsObject() const;
    // "object", "array", "string", "number", "boolean" or "null"; "" for an empty node.
    const char* Kind() const;
    std::string ToString() const;

    // Member names of an object, one per call, in document order.
    bool GetKey(std::string& key);
    void ResetKey();

    CJsonObject& operator[](const std::string& key);
    CJsonObject& operator[](unsigned int index);
    std::string operator()(const std::string& key) const;
    std::string operator()(unsigned int index) const;

    bool Get(const std::string& key, std::string& value) const;
    bool Get(const std::string& key, int& value) const;
    bool Get(const std::string& key, unsigned int& value) const;
    bool Get(const std::string& key, bool& value) const;
    bool Get(int index, std::string& value) const;
    int GetArraySize() const;

private:
    CJsonObject(cJSON* node, std::shared_ptr<cJSON> root);
    // The member named `key`: the occurrence GetKey yielded last when it has that name (so a
    // repeated key reads its own value), else the first one.
    cJSON* Member(const std::string& key) const;
    cJSON* Element(int index) const;
    CJsonObject& Child(cJSON* node);

    std::shared_ptr<cJSON> m_root;  // owns the parsed document
    cJSON* m_node;                  // this node inside it, or null for an empty node
    cJSON* m_keyCursor;             // next member for GetKey
    cJSON* m_lastKey;               // member GetKey yielded last
    bool m_bKeyStarted;
    // Last array element reached: reading elements in order costs one step each.
    mutable cJSON* m_elemCursor = nullptr;
    mutable int m_elemIndex = -1;
    // Child nodes handed out by reference, one per JSON node, so they keep their own state.
    std::map<const cJSON*, std::unique_ptr<CJsonObject>> m_children;
};

}  // namespace neb

#endif
