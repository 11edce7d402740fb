/* The connection calls and the plain types of the TAV settings store's client interface.
 *
 * This header and toolkit.h are all that a program needs to include; link with -ltav (this
 * header's functions) and -ltav++ (toolkit.h's classes). A device's platform ships a library of
 * its own under the same names; programs written against these two headers build against either.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* One connection to the store. Owned by the caller of mlr_init, released by mlr_close. It must not
 * be used by two threads at once or across a fork. */
typedef struct mlr_client mlr_client_t;

/* Connects to the store's service. The socket is the one named by the environment variable
 * TAV_SOCKET, else the built-in default. Returns null when no connection could be made; the reason
 * is reported through mlr_err. */
mlr_client_t *mlr_init(void);

/* The descriptor to wait on (for reading) for change events. It belongs to the connection: do not
 * read it, write it or close it. The number does not change and is valid until mlr_close, even
 * after the service is gone. Returns -1 for a null client. */
int mlr_get_fd(const mlr_client_t *client);

/* Ends the connection and frees the client; null is allowed and does nothing. */
void mlr_close(mlr_client_t *client);

/* Supplied by the program, not by the library: where the library reports its own errors. A program
 * that defines this function (exported from its executable, so link with -rdynamic) receives every
 * report; without a definition they are dropped. `level` is 0 for the most serious ones. */
void mlr_err(unsigned int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* The result types can hold every 32-bit number, so that a program can examine any answer of a
 * service. Their `_min_` and `_max_` serve only this purpose. */

/* The result for one path of a call. Only 1 means that the path exists (reading) or that the change
 * was made (writing); every other value is a fact about the tree and not a failure of the call. */
typedef enum api_status_t {
    api_status_none = 0,       /* not processed: the call itself failed */
    api_status_ok = 1,         /* exists, or done */
    api_status_absent = 2,     /* nothing at that path */
    api_status_wrong_kind = 3, /* a leaf where a node is needed, or the reverse */
    api_status_bad_path = 4,   /* the path itself is malformed */
    api_status_refused = 5,    /* not allowed (for example for the root) */
    api_status_too_large = 6,  /* the call or its answer is beyond what one message may hold */
    api_status_bad_value = 7,  /* the value's text does not fit its type */
    api_status_stale = 8,    /* the caller has not yet fetched an event on a leaf it would change */
    api_status_not_done = 9, /* valid, but another path of the same call was refused */
    api_status_failed = 10,  /* the service could not store the change (disk full, ...) */
    api_status_denied = 11,  /* the caller does not have permission to do this */
    /* Beyond one of the store's limits, which `tav status` lists: */
    api_status_path_too_long = 12,
    api_status_path_too_deep = 13,
    api_status_name_too_long = 14,
    api_status_value_too_long = 15,
    api_status_too_many_children = 16,      /* of one node */
    api_status_too_many_elements = 17,      /* nodes and leaves of the whole store */
    api_status_too_many_registrations = 18, /* of one client */
    api_status_too_many_connections = 19,   /* in total, or of one user */
    api_status_not_empty = 20, /* the node has children, and only an empty one was to be removed */
    api_status_too_many_bytes =
        21,                  /* what the whole store may use; see the service's --max-bytes */
    api_status_changed = 22, /* a condition of the transaction does not hold */
    api_status_pending = 23, /* another change of the element has yet to be confirmed */
    api_status_too_much_pending = 24, /* for one user, of what has yet to be confirmed */
    api_status_min_ = -0x7fffffff - 1,
    api_status_max_ = 0x7fffffff
} api_status_t;

/* What an element of the tree is. Value 1 is not used. */
typedef enum element_type_t {
    element_type_none = 0,
    element_type_node = 2,    /* a subtree; has no value */
    element_type_boolean = 3, /* "true" or "false" */
    element_type_integer = 4, /* a signed 64-bit number in decimal */
    element_type_real = 5,    /* a number in decimal notation */
    element_type_string = 6,  /* text */
    element_type_min_ = -0x7fffffff - 1,
    element_type_max_ = 0x7fffffff
} element_type_t;

/* Properties of an element. This store knows none. */
typedef enum element_property_t {
    element_property_none = 0,
    element_property_min_ = -0x7fffffff - 1,
    element_property_max_ = 0x7fffffff
} element_property_t;

/* The changes for which a registration requests events. */
typedef enum api_event_t {
    api_event_none = 0,
    api_event_change = 1, /* every change of a leaf at or below the path */
    api_event_max_ = 0x7fffffff
} api_event_t;

/* The three-valued flag of a write. This store treats all three alike. */
typedef enum mlr_tribool_t {
    mlr_tribool_false = 0,
    mlr_tribool_true = 1,
    mlr_tribool_unset = 2,
    mlr_tribool_max_ = 0x7fffffff
} mlr_tribool_t;

/* The commands of an event (toolkit::CEvent::command). */
enum {
    mlr_event_notice = 1, /* reports no change */
    mlr_event_set = 2,    /* the leaf was created or has a new value (or was touched) */
    mlr_event_removed = 3 /* the leaf was removed */
};

#ifdef __cplusplus
}
#endif
