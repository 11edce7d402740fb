#include "store_change.h"

#include "store_model.h"

namespace model {

StoreChange change_of(const Operation &operation,
                      const std::function<std::optional<std::string>(const std::string &)> &read) {
    const auto &arguments = operation.arguments;
    const int number = arguments[0] + 1;
    const auto node = [&](std::size_t i) { return node_name(arguments[i]); };
    const auto address = [&](int spelling) {
        return spelled(address_text(arguments[0], arguments[2]) + "/" +
                           std::to_string(arguments[3]),
                       spelling);
    };
    switch (operation.kind) {
    case Kind::store_set:
        return {{{address_leaf(number, node(1)), address(arguments[5])},
                 {type_leaf(number, node(1)), type_text(arguments[4])}},
                ""};
    case Kind::store_address:
        return {{{address_leaf(number, node(1)), address(arguments[4])}}, ""};
    case Kind::store_type:
        return {{{type_leaf(number, node(1)), type_text(arguments[2])}}, ""};
    case Kind::store_remove:
        return {{}, address_node(number, node(1))};
    case Kind::store_rename: {
        const auto text = read(address_leaf(number, node(1)));
        const auto type = read(type_leaf(number, node(1)));
        if (!text || !type || arguments[1] == arguments[2]) {
            return {};
        }
        return {{{address_leaf(number, node(2)), *text}, {type_leaf(number, node(2)), *type}},
                address_node(number, node(1))};
    }
    case Kind::store_malformed:
        return {{{address_leaf(number, node(1)), malformed_address(arguments[2])}}, ""};
    case Kind::gateway_set:
        return {{{gateway_leaf(number), spelled(gateway_text(arguments[1]), arguments[2])}}, ""};
    case Kind::gateway_bad:
        return {{{gateway_leaf(number), malformed_gateway(arguments[1])}}, ""};
    case Kind::gateway_remove:
        return {{}, gateway_node(number)};
    case Kind::foreign:
        return {{{foreign_leaf(number, arguments[1]), "foreign"}}, ""};
    case Kind::interface_drop:
        return {{}, std::to_string(number)};
    default:
        return {};
    }
}

} // namespace model
