# The user and group vornd runs as on a device (daemon/vornd.rc: "user vendor_vorn").
# A product adds this file to its build with
#   TARGET_FS_CONFIG_GEN += path/to/vorn/daemon/config.fs
# Vendor ids lie in 2900-2999; change the value if the product already uses 2950.
[AID_VENDOR_VORN]
value: 2950
