// What the scripts share: clients at level 5 whose calls are promises, and a run that ends with the right exit code.
'use strict'

const mqtt = require('mqtt')

const call = (client, name, ...args) =>
  new Promise((resolve, reject) => client[name](...args, (error, result) => error ? reject(error) : resolve(result)))

// Resolves to the client and its CONNACK.
function connect (clientId, options = {}) {
  return new Promise((resolve, reject) => {
    const client = mqtt.connect('mqtt://127.0.0.1:1883', {
      protocolVersion: 5,
      clientId,
      reconnectPeriod: 0,
      properties: { maximumPacketSize: 4096 },
      ...options
    })
    client.once('connect', connack => resolve([client, connack]))
    client.once('error', reject)
    client.once('close', () => reject(new Error(clientId + ' was closed')))
  })
}

const nextMessage = client =>
  new Promise(resolve => client.once('message', (topic, payload, packet) => resolve({ topic, payload, packet })))

// The next so many messages.
function messages (client, count) {
  return new Promise(resolve => {
    const got = []
    client.on('message', function take (topic, payload, packet) {
      got.push({ topic, payload: payload.toString(), qos: packet.qos, retain: packet.retain })
      if (got.length < count) return
      client.removeListener('message', take)
      resolve(got)
    })
  })
}

function run (main) {
  const timer = setTimeout(() => { console.error('the time is up'); process.exit(2) }, 60000)
  main().then(() => { clearTimeout(timer); console.log('all went well') },
    error => { console.error(error); process.exit(1) })
}

module.exports = { call, connect, nextMessage, messages, run }
