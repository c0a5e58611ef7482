import asyncio, tqble

async def main():
    async with tqble.connect("TQ-AC7-0042") as post:  # a simulated post unless TQBLE_BACKEND=bluez
        print(await post.state())

asyncio.run(main())
