"""Threads that run one after another, so that their stops come in one order."""
import threading


def work(n):
    n += 1                            # stop
    return n


class Worker(threading.Thread):
    def run(self):
        print(self.name, work(5))     # stop if self.name != "second"


def main():
    for name in ("first", "second"):
        thread = Worker(name=name)
        thread.start()
        thread.join()
    timer = threading.Timer(0, work, [9])
    timer.start()
    timer.join()
    print(work(1))


main()
