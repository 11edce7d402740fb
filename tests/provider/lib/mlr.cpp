#include <tav/mlr.h>

#include <unistd.h>

struct kit_connection {
    int ends[2];
};

mlr_client_t *mlr_init() {
    auto *connection = new kit_connection;
    if (pipe(connection->ends) != 0) {
        delete connection;
        return nullptr;
    }
    return connection;
}

// Never readable: this provider has no events.
int mlr_get_fd(const mlr_client_t *client) {
    return client->ends[0];
}

void mlr_close(mlr_client_t *client) {
    close(client->ends[0]);
    close(client->ends[1]);
    delete client;
}
