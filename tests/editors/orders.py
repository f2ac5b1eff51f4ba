"""What the editors debug in the tests, and in the pictures."""

import queue
import threading

orders = queue.Queue()


def price(order):
    total = sum(order.values())
    return round(total * 1.19, 2)


def sell():
    for order in iter(orders.get, None):
        print("sold for", price(order))


tills = [threading.Thread(target=sell, name=f"till {n}") for n in (1, 2)]
for each in tills:
    each.start()
for order in ({"tea": 4.5, "cake": 3.25}, None, None):
    orders.put(order)
for each in tills:
    each.join()
