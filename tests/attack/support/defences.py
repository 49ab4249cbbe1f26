"""The options of msgbusd that switch a defence off. An attack on a defence that has no option yet is skipped."""

BUDGETS = "--no-budgets"  # what one process may take: connections, registrations, handshakes, bytes of topics
OWNERSHIP = "--no-ownership"  # an id is valid for the process that got it
SLOW_SUBSCRIBERS = "--no-slow-limit"  # a subscriber that does not read is cut
LOG_LIMIT = "--no-log-limit"  # lines of one place of the sources, per second
DIRECTORY_WATCH = "--no-directory-watch"  # sockets that were removed come back
SUPERVISION = "--no-supervision"  # a server that cannot serve ends
