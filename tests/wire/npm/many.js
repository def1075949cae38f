// Two clients send each other many messages at once: all arrive, at their QoS, and every publication is completed.
'use strict'

const assert = require('assert')
const { call, connect, messages, run } = require('./clients')

const COUNT = 200
const AT_ONCE = 20 // identifiers are drawn at random, and at QoS 2 the client confuses messages in flight that share one

async function flood (from, to, topic, qos) {
  await call(to, 'subscribe', topic, { qos })
  const arrival = messages(to, COUNT)
  const sent = Array.from({ length: COUNT }, (_, i) => 'message ' + i)
  for (let i = 0; i < COUNT; i += AT_ONCE) { // each until its PUBACK, or the end of its handshake
    await Promise.all(sent.slice(i, i + AT_ONCE).map(payload => call(from, 'publish', topic, payload, { qos })))
  }
  const got = await arrival
  assert.deepStrictEqual(got.map(one => one.payload).sort(), sent.sort())
  assert(got.every(one => one.topic === topic && one.qos === qos && !one.retain))
  await call(to, 'unsubscribe', topic)
}

run(async () => {
  const [one] = await connect('one')
  const [other] = await connect('other')
  for (const qos of [1, 2]) {
    await Promise.all([flood(one, other, 'to/other/' + qos, qos), flood(other, one, 'to/one/' + qos, qos)])
  }
  await call(one, 'end', false, {})
  await call(other, 'end', false, {})
})
