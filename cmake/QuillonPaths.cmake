# Where files lie on the device. Programs, units and tmpfiles are made from these; docs/integration.md
# lists them.

set(QUILLON_TRUSTED_KEYS "/etc/quillon/trusted-keys" CACHE STRING
    "directory with the public keys (*.pem) whose signatures the verifier accepts")
set(QUILLON_TRUST_POLICY "/etc/quillon/trust.conf" CACHE STRING
    "file that says what a device trusts beside its keys")
set(QUILLON_SECURITY_FLOORS "/var/lib/quillon/trust/floors" CACHE STRING
    "file with the security floors that provisioning packages have raised")
set(QUILLON_SECURE_STORAGE "/var/lib/quillon/secure-storage" CACHE STRING
    "directory of the secure storage's items")
set(QUILLON_PROVISIONING_CERTIFICATES "/etc/quillon/provisioning-certificates" CACHE STRING
    "directory with the certificates (*.pem) whose provisioning packages a device accepts")
set(QUILLON_DOWNLOADS_CONF "/etc/quillon/downloads.conf" CACHE STRING
    "file that says where packages are downloaded from")
set(QUILLON_PRIVILEGED_SOCKET "/run/quillon/privileged.sock" CACHE STRING
    "socket of the mounting helper")
set(QUILLON_STORAGE_SOCKET "/run/quillon/storage.sock" CACHE STRING
    "socket of the storage helper")
set(QUILLON_SYSTEMD_CREDS "/usr/bin/systemd-creds" CACHE STRING
    "program that seals the secure storage's items")
