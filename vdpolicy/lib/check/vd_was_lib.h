/* Object-storage configurations: the file "objs.conf" in the configuration
 * directory, its records, and the check that a policy's objs_id and
 * objs_namespace exist there.
 *
 * Ownership: every string and pointer in a CLA_PARAM_T is a malloc'ed copy
 * owned by the record; was_config_param_destroy frees them and the record.
 * A cla_was_config_info owns its records (free_was_config_info); the info
 * itself belongs to the caller. The file is read afresh on every call, so an
 * edit of objs.conf is seen by the next check. Thread-safe: no shared state
 * besides the constant tables and the keep-alive tunables (read only).
 */
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "libutil/option_parse.h"

#ifdef __cplusplus
extern "C" {
#endif

#define CLA_MAX_HOST_PORTS 256
#define CLA_MAX_BUCKETS 16
#define CLA_MAX_CONFIGS 64 /* a 65th configuration fails the file */
#define CLA_MAX_PORT_SPAN 256
#define OBJS_CONF_NAME "objs.conf"

typedef enum CLA_PROVIDER {
  CLA_PROVIDER_NONE = 0,
  CLA_PROVIDER_FENWYK = 1,
  CLA_PROVIDER_FENWYK_S3 = 2,
  CLA_PROVIDER_AMAZON_S3 = 4,
  CLA_PROVIDER_SWIFT_S3 = 5
} CLA_PROVIDER;

typedef enum CLA_AUTH {
  CLA_AUTH_NONE = 0,
  CLA_AUTH_BASIC = 1,
  CLA_AUTH_DIGEST = 2,
  CLA_AUTH_DIGEST_IE = 3,
  CLA_AUTH_NEGOTIATE = 4,
  CLA_AUTH_NTLM = 5,
  CLA_AUTH_ANY = 6,
  CLA_AUTH_ANYSAFE = 7,
  CLA_AUTH_PKI = 8,
  CLA_AUTH_AWSV2 = 9,
  CLA_AUTH_AWSV4 = 10,
  CLA_AUTH_UNKNOWN = 100
} CLA_AUTH;

typedef enum CLA_VERIFY_TYPE {
  CLA_VERIFY_NONE = 0,
  CLA_VERIFY_PEERHOST = 1,
  CLA_VERIFY_PEERONLY = 2
} CLA_VERIFY_TYPE;

typedef struct CLA_PARAM_T {
  char *cloud_id;
  CLA_PROVIDER provider;
  int hosts_cnt;
  int buckets_cnt;
  char *host_ports[CLA_MAX_HOST_PORTS]; /* "host" or "host:port" */
  char *buckets[CLA_MAX_BUCKETS];       /* namespaces */
  char *manager_host;
  uint32_t manager_port;
  bool manager_https;
  char *manager_username;
  char *manager_password;
  CLA_AUTH authentication;
  char *username;
  char *password;
  bool use_https;
  bool use_zlib;
  CLA_VERIFY_TYPE server_auth;
  char *cacertfile;
  char *capath;
  uint64_t max_seg_size;
  uint32_t was_transfertimeout;
  int was_keepalive_idle;
  int was_keepalive_intvl;
  bool s3_virtual_hosting;
  bool s3_ss_encryption;
} CLA_PARAM_T;

typedef struct cla_was_config_info {
  struct cla_was_config_info *was_link; /* list link for the users; not used here */
  int config_count;
  CLA_PARAM_T *config[CLA_MAX_CONFIGS];
  void *store[CLA_MAX_CONFIGS]; /* per-configuration state of the users */
} cla_was_config_info;

/* Process-wide keep-alive tunables copied into every new configuration
 * (seconds). Set them before parsing; they are read without a lock. */
extern int was_tune_keepalive_idle;  /* default 60 */
extern int was_tune_keepalive_intvl; /* default 30 */

/* The keyword table of objs.conf. */
extern const Option CloudOptions[];

/* Reads the file at path into info (which it zeroes first). Returns 0; or -1
 * with *err set to a malloc'ed message the caller frees, and no records left
 * in info. A missing file is no error and yields no configurations. */
int parse_objs_config_file(const char *path, cla_was_config_info *info, char **err);

/* 0 if the configuration is complete; 1 with *msg pointing to a static
 * "Verification failed: ..." text otherwise. */
int verify_obj_store_cfg(const CLA_PARAM_T *cfg, const char **msg);

/* Appends the '|'-separated endpoints of text to cfg. Returns 0, or -1 with
 * *msg set to the static "incorrect ports specified.\n". */
int parse_host_port_str(const char *text, CLA_PARAM_T *cfg, const char **msg);

/* Provider number, or 0 for an unknown name. */
int getProviderByName(const char *name);
/* Authentication number, or CLA_AUTH_UNKNOWN (100). */
int getAuthByName(const char *name);

void init_obj_store_cfg(CLA_PARAM_T *cfg);
/* Frees every string, endpoint and namespace, then the record; null ignored. */
void was_config_param_destroy(CLA_PARAM_T *cfg);
/* Destroys every record of info and sets config_count to 0. */
void free_was_config_info(cla_was_config_info *info);

/* 0 when GetKxfsConfigDir()/objs.conf holds objs_id (ignoring case) with
 * objs_namespace among its namespaces (exactly); else -1 and a message in
 * ErrMsg (ErrMsgSz bytes; either may be null/0). */
int verify_was_policy_params(const char *objs_id, const char *objs_namespace, char *ErrMsg,
                             size_t ErrMsgSz);

#ifdef __cplusplus
}
#endif
