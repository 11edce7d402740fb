// A client that defines no mlr_err and finds no service.
#include <tav/mlr.h>

int main() {
    mlr_client_t *client = mlr_init();
    const bool connected = client != nullptr;
    mlr_close(client);
    return connected ? 1 : 0;
}
