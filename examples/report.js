// Reports an event over D-Bus, peer to peer, with the npm package dbus-next and without libquorvane. It believes that
// there is a message bus; the daemon answers what it asks one for.

const dbus = require('dbus-next')
const { Message, Variant } = dbus

const address = `unix:path=${process.env.QUORVANE_ROOT ?? ''}/run/quorvane/com.velmora.quorvaned`

async function report (bus) {
  const call = (member, signature = '', ...body) => bus.call(new Message({
    destination: 'com.velmora.quorvaned',
    path: '/com/velmora/quorvaned',
    interface: 'com.velmora.quorvaned.ClientSessionInterface',
    member,
    signature,
    body
  }))

  const session = { SessionID: new Variant('u', 1), ClientType: new Variant('u', 5) }
  await call('SetSessionInfo', 'a{sv}aa{sv}asb', session, [], [], false)
  // An answer that may be absent is an array of one element or none. Here: no storebag, or the backends that report.
  const [states] = (await call('StartConfig')).body
  console.log('reporting:', states.length > 0 ? states[0].join(', ') : 'no storebag')

  const payload = { from: new Variant('s', 'JavaScript'), took: new Variant('d', 0.25) }
  const event = { Category: new Variant('q', 12), Type: new Variant('q', 3), Payload: new Variant('a{sv}', payload) }
  await call('SendMessageWithDictionary', 'a{sv}', event)
  await call('FlushMessages')
}

const bus = dbus.sessionBus({ busAddress: address })
bus.on('error', error => { console.error(`report.js: ${error.message}`); process.exit(1) })
report(bus).then(() => bus.disconnect(), error => {
  console.error(`report.js: ${error.message}`)
  process.exit(1)
})
