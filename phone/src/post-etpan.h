/* libetpan and GnuTLS, loaded when they are first wanted: with what they stand on they are most of what this program
   would load at its start, and what reads a mail or speaks to the watch has no use for them. */
#ifndef BRISEL_PHONE_POST_ETPAN_H
#define BRISEL_PHONE_POST_ETPAN_H

#include <gnutls/x509.h>
#include <libetpan/libetpan.h>

/* clang-format off */
#define BRISEL_ETPAN_FUNCTIONS(X) \
  X(clist_insert_after) \
  X(clist_new) \
  X(mailimap_append) \
  X(mailimap_capability_data_free) \
  X(mailimap_capability_data_new) \
  X(mailimap_capability_new) \
  X(mailimap_connect) \
  X(mailimap_custom_command) \
  X(mailimap_enable) \
  X(mailimap_fetch) \
  X(mailimap_fetch_att_new_body_peek_section_partial) \
  X(mailimap_fetch_att_new_bodystructure) \
  X(mailimap_fetch_att_new_flags) \
  X(mailimap_fetch_att_new_internaldate) \
  X(mailimap_fetch_att_new_uid) \
  X(mailimap_fetch_list_free) \
  X(mailimap_fetch_type_free) \
  X(mailimap_fetch_type_new_fetch_att_list_add) \
  X(mailimap_fetch_type_new_fetch_att_list_empty) \
  X(mailimap_flag_list_add) \
  X(mailimap_flag_list_free) \
  X(mailimap_flag_list_new_empty) \
  X(mailimap_flag_new_answered) \
  X(mailimap_flag_new_deleted) \
  X(mailimap_flag_new_seen) \
  X(mailimap_free) \
  X(mailimap_has_authentication) \
  X(mailimap_has_extension) \
  X(mailimap_header_list_new) \
  X(mailimap_idle) \
  X(mailimap_idle_done) \
  X(mailimap_idle_get_fd) \
  X(mailimap_list) \
  X(mailimap_list_result_free) \
  X(mailimap_login) \
  X(mailimap_new) \
  X(mailimap_parse_response) \
  X(mailimap_qresync_vanished_free) \
  X(mailimap_read_line) \
  X(mailimap_response_free) \
  X(mailimap_response_info_free) \
  X(mailimap_response_info_new) \
  X(mailimap_search_key_free) \
  X(mailimap_search_key_new_header) \
  X(mailimap_search_result_free) \
  X(mailimap_section_new_header_fields) \
  X(mailimap_section_new_part) \
  X(mailimap_section_new_part_header_fields) \
  X(mailimap_section_new_text) \
  X(mailimap_section_part_new) \
  X(mailimap_select) \
  X(mailimap_select_condstore) \
  X(mailimap_send_current_tag) \
  X(mailimap_set_add_single) \
  X(mailimap_set_free) \
  X(mailimap_set_new_empty) \
  X(mailimap_set_new_interval) \
  X(mailimap_set_new_single) \
  X(mailimap_set_timeout) \
  X(mailimap_starttls) \
  X(mailimap_store_att_flags_free) \
  X(mailimap_store_att_flags_new_add_flags_silent) \
  X(mailimap_uid_copy) \
  X(mailimap_uid_expunge) \
  X(mailimap_uid_fetch) \
  X(mailimap_uid_fetch_qresync) \
  X(mailimap_uid_move) \
  X(mailimap_uid_search) \
  X(mailimap_uid_store) \
  X(mailstream_certificate_chain_free) \
  X(mailstream_close) \
  X(mailstream_flush) \
  X(mailstream_get_certificate_chain) \
  X(mailstream_get_low) \
  X(mailstream_low_free) \
  X(mailstream_low_get_fd) \
  X(mailstream_low_set_timeout) \
  X(mailstream_low_socket_open) \
  X(mailstream_low_tls_open_with_callback) \
  X(mailstream_new) \
  X(mailstream_set_low) \
  X(mailstream_ssl_set_server_name) \
  X(mailstream_write)
#define BRISEL_GNUTLS_FUNCTIONS(X) \
  X(gnutls_x509_crt_deinit) \
  X(gnutls_x509_crt_import) \
  X(gnutls_x509_crt_init) \
  X(gnutls_x509_trust_list_add_system_trust) \
  X(gnutls_x509_trust_list_add_trust_file) \
  X(gnutls_x509_trust_list_deinit) \
  X(gnutls_x509_trust_list_init) \
  X(gnutls_x509_trust_list_verify_crt2)
/* clang-format on */

#define BRISEL_FUNCTION(name) decltype(&::name) name;
struct etpan_functions {
  BRISEL_ETPAN_FUNCTIONS(BRISEL_FUNCTION)
};
struct gnutls_functions {
  BRISEL_GNUTLS_FUNCTIONS(BRISEL_FUNCTION)
};
#undef BRISEL_FUNCTION

/* What is said when they cannot be had. */
inline constexpr char etpan_missing[] = "libetpan or GnuTLS, which speak to servers, are not on this machine";
/* Both libraries' functions, once etpan_load() was true; it says again what it said before. They stay loaded. */
extern const etpan_functions *etpan;
extern const gnutls_functions *gnutls;
bool etpan_load(void);

#endif
