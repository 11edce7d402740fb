// A second, minimal provider of the store's client interface: other names for the values, but the
// same numbers.
#pragma once

struct kit_connection;
using mlr_client_t = kit_connection;

enum api_status_t : int { kit_missing = 0, kit_good = 1 };
enum element_type_t : int { kit_nothing = 0, kit_tree = 2, kit_text = 6 };
enum element_property_t : int { kit_plain = 0 };
enum api_event_t : int { kit_any_change = 1 };
enum mlr_tribool_t : int { kit_no = 0, kit_yes = 1, kit_maybe = 2 };

extern "C" {
mlr_client_t *mlr_init();
int mlr_get_fd(const mlr_client_t *client);
void mlr_close(mlr_client_t *client);
}
