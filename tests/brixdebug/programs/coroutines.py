"""Coroutines and async generators under asyncio: awaits that suspend, tasks, cancellation."""
import asyncio


async def nap(n):
    await asyncio.sleep(0)
    return n                          # stop


async def worker(name, naps):
    total = 0
    for n in range(naps):
        total += await nap(n)
        print(name, total)            # stop if naps == 2
    return total


async def ticks(limit):
    try:
        for n in range(limit):
            yield n                   # stop
            await asyncio.sleep(0)
    finally:
        print("no more ticks")


class Door:
    async def __aenter__(self):
        await asyncio.sleep(0)
        return "open"

    async def __aexit__(self, *exc_info):
        await asyncio.sleep(0)        # stop
        return exc_info[0] is LookupError


async def patient():
    try:
        await asyncio.Event().wait()
    except asyncio.CancelledError:
        print("cancelled")            # stop
        raise
    finally:
        await asyncio.sleep(0)
        print("cleaned up")


async def failing():
    await asyncio.sleep(0)
    raise ValueError("failed")


async def main():
    print(await worker("alone", 1))
    async for n in ticks(2):
        print("tick", n)
    print([n async for n in ticks(2) if n])
    tasks = [asyncio.create_task(worker(name, 2)) for name in "ab"]
    print(await asyncio.gather(*tasks))
    waiting = asyncio.create_task(patient())
    await asyncio.sleep(0)
    waiting.cancel()
    try:
        await waiting
    except asyncio.CancelledError:
        print("seen", waiting.cancelled())
    async with Door() as door:
        print(door)                   # stop
        raise LookupError("kept in")
    try:
        await failing()
    except ValueError as error:
        print(error)
    unfinished = ticks(5)
    print(await unfinished.__anext__())
    await unfinished.aclose()


asyncio.run(main())
