#ifndef VORN_CONFIG_CONFIGSCHEMA_H
#define VORN_CONFIG_CONFIGSCHEMA_H

#include "config/ServiceId.h"

// Internal. The members the configuration file may hold and the JSON type the reader accepts
// for each: ConfigManager::ParseJSONDoc takes its keys from these tables, ConfigChecker its
// expectations, so the two cannot drift apart.

enum ConfigValueType {
    CONFIG_OBJECT,        // a JSON object
    CONFIG_STRING,        // a JSON string
    CONFIG_INTEGER,       // a whole number that fits a signed 32-bit integer
    CONFIG_UNSIGNED,      // a whole number that fits an unsigned 32-bit integer
    CONFIG_BOOLEAN,       // true or false
    CONFIG_ARRAY,         // a JSON array (the white list: its elements are checked one by one)
    CONFIG_STRING_ARRAY,  // a JSON array of strings
};

struct ConfigMember {
    const char* key;
    ConfigValueType type;
};

struct ConfigServiceKey {
    const char* key;
    ServiceId id;
};

// The top-level keys, one object per service.
enum { CONFIG_SERVICE_KEY_COUNT = 3 };
extern const ConfigServiceKey kConfigServiceKeys[CONFIG_SERVICE_KEY_COUNT];

// The members of a service object, in the order the reader applies them.
enum ConfigServiceMember {
    CONFIG_LIBPATH,
    CONFIG_DEFAULT_TIMEOUT,
    CONFIG_DEFAULT_FUNC,
    CONFIG_SUPPORT,
    CONFIG_WHITELIST,
    CONFIG_SERVICE_MEMBER_COUNT
};
extern const ConfigMember kConfigServiceMembers[CONFIG_SERVICE_MEMBER_COUNT];

// The members of an object entry of a white list.
enum ConfigEntryMember {
    CONFIG_ENTRY_TIMEOUT,
    CONFIG_ENTRY_FUNC,
    CONFIG_ENTRY_COMMANDS,
    CONFIG_ENTRY_COMMAND,
    CONFIG_ENTRY_MEMBER_COUNT
};
extern const ConfigMember kConfigEntryMembers[CONFIG_ENTRY_MEMBER_COUNT];

#endif
