"""Pushes one value and receives it."""

import msgbus

with msgbus.Subscriber("reader", ["temperature"]) as subscriber, msgbus.Publisher("temperature") as publisher:
    publisher.push(21)
    print(*subscriber.next())
