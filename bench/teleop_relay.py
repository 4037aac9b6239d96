#!/usr/bin/python3
"""The relay a user would otherwise write in an afternoon, as a baseline of the
teleoperation latency bench (teleop_latency runs it with Debian's python3).

Connects to the master controller (127.0.0.2:8090) and the slave controller
(127.0.0.1:8090) with the websockets module; for each master frame it reads
the joints and the gripper with the json module and sends one tracking
message to the slave. Messages from the slave are read and dropped. Prints
"relay ready" once both connections stand and runs until SIGINT.
"""
import asyncio
import json

import websockets

MASTER = "ws://127.0.0.2:8090"
SLAVE = "ws://127.0.0.1:8090"
GRIPPER_DIVISOR = 0.6  # the tool's joint-mode gripper mapping
GRIPPER_MAX = 0.08


async def drain(connection):
    async for _ in connection:
        pass


async def relay():
    options = dict(max_size=None, ping_interval=None, compression=None)
    async with websockets.connect(MASTER, **options) as master, websockets.connect(SLAVE, **options) as slave:
        drainer = asyncio.ensure_future(drain(slave))
        print("relay ready", flush=True)
        async for text in master:
            arm = json.loads(text)["arm"][0]
            gripper = min(max(arm["gripper"]["gripper_pos"] / GRIPPER_DIVISOR, 0.0), GRIPPER_MAX)
            await slave.send(json.dumps({
                "command": "trajectoryTrackingTasks",
                "task_id": "TASK_TRACKING",
                "data": {"way_point": arm["reality"]["pose"], "grp_point": gripper},
                "point_type": {"space": 0},
                "arm_index": 0,
            }))
        drainer.cancel()


if __name__ == "__main__":
    try:
        asyncio.run(relay())
    except KeyboardInterrupt:
        pass
