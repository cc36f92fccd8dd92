#include "config/ConfigSchema.h"

const ConfigServiceKey kConfigServiceKeys[CONFIG_SERVICE_KEY_COUNT] = {
    {"misc", MISC_SERVICE},
    {"sensor", SENSOR_SERVICE},
    {"modem", MODEM_SERVICE},
};

const ConfigMember kConfigServiceMembers[CONFIG_SERVICE_MEMBER_COUNT] = {
    {"libpath", CONFIG_STRING},      {"default_timeout", CONFIG_INTEGER},
    {"default_func", CONFIG_STRING}, {"support", CONFIG_BOOLEAN},
    {"whitelist", CONFIG_ARRAY},
};

const ConfigMember kConfigEntryMembers[CONFIG_ENTRY_MEMBER_COUNT] = {
    {"timeout", CONFIG_UNSIGNED},
    {"func", CONFIG_STRING},
    {"commands", CONFIG_STRING_ARRAY},
    {"command", CONFIG_STRING},
};
