#ifndef VORN_PLATFORM_CJSONOBJECT_H
#define VORN_PLATFORM_CJSONOBJECT_H

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Json {
class Value;
}

namespace neb {

// A JSON node with value semantics, over jsoncpp (libjsoncpp: Debian's libjsoncpp-dev, and the
// vendor variant of external/jsoncpp on a device). Child nodes returned by operator[] are the
// same object on every call, so a key iteration started on an element goes on from call to
// call. A node and the children it hands out are used by one thread at a time.
//
// Members come in document order, repeated keys included, although jsoncpp keeps an object's
// members in a map sorted by name with only the last of a repeated key: the node walks the
// object's own text (jsoncpp records where each value starts and ends) and parses each member
// that the map does not hold, an earlier occurrence of a repeated key, from its own place in
// the text. What jsoncpp decides alone (what is valid JSON):
//   - a number too large for a double ("1e999") is a syntax error;
//   - a bare "-" reads as the number 0 and "1." as 1.0;
//   - a control character inside a string is taken as it is.
// The text itself must not hold a NUL byte, nor nest arrays and objects more than 1000 deep:
// either makes Parse fail.
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
    // The node's text as the document writes it; "" for an empty node.
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
    static const std::size_t kNoMember = static_cast<std::size_t>(-1);
    struct Document;  // the text and the tree jsoncpp made of it, shared by a node's children
    // One member of an object, in document order.
    struct Member {
        std::string key;
        const Json::Value* value;          // in the parent's tree, or in `own`
        std::size_t base;                  // text offset that value's own offsets count from
        std::shared_ptr<Json::Value> own;  // an earlier occurrence of a repeated key
    };

    CJsonObject(std::shared_ptr<Document> doc, const Json::Value* value, std::size_t base);
    // Lists the members of an object from its text, once.
    void LoadMembers() const;
    // The member named `key`: the occurrence GetKey yielded last when it has that name (so a
    // repeated key reads its own value), else the first one.
    const Member* FindMember(const std::string& key) const;
    const Json::Value* Element(int index) const;
    CJsonObject& Child(const Json::Value* value, std::size_t base);

    std::shared_ptr<Document> m_doc;
    const Json::Value* m_value;  // this node inside the document, or null for an empty node
    std::size_t m_base;          // text offset that m_value's own offsets count from
    // Filled on first use of an object's members.
    mutable bool m_bMembersLoaded;
    mutable std::vector<Member> m_members;
    mutable std::unordered_map<std::string, std::size_t> m_firstMember;  // key -> first index
    std::size_t m_keyCursor;                                             // next member for GetKey
    std::size_t m_lastKey;  // member GetKey yielded last, or kNoMember
    bool m_bKeyStarted;
    // Child nodes handed out by reference, one per JSON value, so they keep their own state.
    std::map<const Json::Value*, std::unique_ptr<CJsonObject>> m_children;
};

}  // namespace neb

#endif
