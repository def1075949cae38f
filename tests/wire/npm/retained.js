// Retained messages at QoS 1 and 2: replayed in order, replaced, deleted and ended by their own interval.
'use strict'

const assert = require('assert')
const { call, connect, messages, run } = require('./clients')

const keep = (client, topic, payload, qos, properties) =>
  call(client, 'publish', topic, payload, { qos, retain: true, properties })

async function kept (client, filter, count) {
  const arrival = messages(client, count)
  await call(client, 'subscribe', filter, { qos: 2 })
  const got = await arrival
  await call(client, 'unsubscribe', filter)
  return got.map(one => [one.topic, one.payload, one.qos, one.retain])
}

run(async () => {
  const [publisher] = await connect('publisher')
  const [reader] = await connect('reader')
  for (const qos of [1, 2]) {
    const topic = name => 'kept/' + qos + '/' + name
    await keep(publisher, topic('a'), 'one', qos)
    await keep(publisher, topic('b'), 'two', qos)
    await keep(publisher, topic('c'), 'three', qos, { messageExpiryInterval: 1 })
    await keep(publisher, topic('a'), 'changed', qos)
    await keep(publisher, topic('d'), 'four', qos)
    await keep(publisher, topic('b'), '', qos)
    assert.deepStrictEqual(await kept(reader, topic('a'), 1), [[topic('a'), 'changed', qos, true]])
    await new Promise(resolve => setTimeout(resolve, 2100)) // the next publication finds it ended
    await keep(publisher, topic('e'), 'five', qos)
    assert.deepStrictEqual(await kept(reader, topic('#'), 3),
      [['a', 'changed'], ['d', 'four'], ['e', 'five']].map(([name, payload]) => [topic(name), payload, qos, true]))
  }
  await call(publisher, 'end', false, {})
  await call(reader, 'end', false, {})
})
