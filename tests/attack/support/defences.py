"""The options of msgbusd that switch a defence off. An attack on a defence that has no option yet is skipped."""

BUDGETS = "--no-limits"  # what one process may take: connections, registrations, handshakes, bytes of topics
OWNERSHIP = "--no-ownership"  # an id is valid for the process that got it
SLOW_SUBSCRIBERS = "--no-limits"  # a subscriber that does not read is cut
LOG_LIMIT = "--no-log-limit"  # lines of one place of the sources, per second
DIRECTORY_WATCH = "--no-name-watch"  # sockets that were removed come back
SUPERVISION = "--no-fail-stop"  # a server that cannot serve ends
