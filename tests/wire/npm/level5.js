// Two clients of the mqtt package against the broker on this port: what they send each other must arrive.
'use strict'

const assert = require('assert')
const { call, connect, nextMessage, run } = require('./clients')

async function exchange (from, to, topic, payload, qos) {
  const arrival = nextMessage(to)
  await call(from, 'publish', topic, payload, { qos })
  const { topic: gotTopic, payload: gotPayload, packet } = await arrival
  assert.strictEqual(gotTopic, topic)
  assert.deepStrictEqual(gotPayload, Buffer.from(payload))
  assert.strictEqual(packet.qos, qos)
  assert.strictEqual(packet.retain, false)
}

run(async () => {
  const [subscriber, connack] = await connect('npm-subscriber')
  const [publisher] = await connect('npm-publisher')
  assert.strictEqual(connack.reasonCode, 0)
  assert.strictEqual(connack.sessionPresent, false)
  assert.strictEqual(connack.properties.maximumPacketSize, 4096)

  for (const qos of [0, 1, 2]) {
    const topic = 'npm/' + qos
    const granted = await call(subscriber, 'subscribe', topic, { qos })
    assert.deepStrictEqual(granted.map(one => [one.topic, one.qos]), [[topic, qos]])
    for (const payload of ['hello', 'x'.repeat(1500), '']) {
      if (payload !== '' || qos === 0) await exchange(publisher, subscriber, topic, payload, qos)
    }
    await call(subscriber, 'unsubscribe', topic)
  }

  await call(publisher, 'publish', 'npm/kept', 'kept', { qos: 1, retain: true })
  const arrival = nextMessage(subscriber)
  await call(subscriber, 'subscribe', 'npm/kept', { qos: 1 })
  const kept = await arrival
  assert.strictEqual(kept.payload.toString(), 'kept')
  assert.strictEqual(kept.packet.retain, true)

  await call(publisher, 'end', false, {})
  await call(subscriber, 'end', false, {})
})
