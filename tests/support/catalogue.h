// catalogue.h - a real PostgreSQL with the appliance's catalogue, one cluster a test program.
#pragma once

#include "support/test.h"

namespace testsupport {

class Catalogue {
public:
    // Starts the cluster on the first call and sets PGSERVICEFILE; it is stopped when the program ends.
    static Catalogue& instance();

    // Empties every table and puts back the rows that the schema brings.
    void reset();

    // Runs statements (several, split by ';', are allowed) or fails the test.
    void sql(std::string_view statements);

    // The first field of the first row as text; empty for no row or NULL.
    [[nodiscard]] std::string value(std::string_view query);

    // All rows, fields joined by '|', rows by '\n', in the order of the query.
    [[nodiscard]] std::string rows(std::string_view query);

    // Waits until a session waits for a lock; false at a deadline.
    [[nodiscard]] bool somebodyWaits();

    // Stops and starts the server, as an administrator would.
    void restart();
};

}  // namespace testsupport
