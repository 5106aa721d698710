/* Placeholder: the integration-test fixture lands with the server foundation. */
