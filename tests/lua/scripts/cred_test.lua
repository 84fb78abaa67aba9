-- The cred table as scripts use it, on the made-up machine that ctest gives
-- through VESK_HOSTSEAL_FACTS.
local cred, ssl = SLB.cred, SLB.ssl
local dir = os.tmpname()
os.remove(dir)
assert(os.execute("mkdir " .. dir))

local function fails(pattern, f, ...)
  local ok, err = pcall(f, ...)
  assert(not ok and tostring(err):find(pattern), tostring(err))
end
local function read(path)
  local file = assert(io.open(path, "rb"))
  local bytes = file:read("*a")
  file:close()
  return bytes
end

-- Sealing bytes, NULs and all; a number is its text; anything else raises.
local sealed = assert(cred.E("secret\0bytes"))
local plain, flag = cred.D(sealed)
assert(plain == "secret\0bytes" and flag == false)
assert(cred.D(cred.E(123)) == "123")
assert(select("#", cred.D("not a blob")) == 1 and cred.D("not a blob") == nil)
assert(select("#", cred.D(sealed:sub(1, -2))) == 1)
fails("Binary data expected", cred.E, {})
fails("Binary data expected", cred.D, nil)

-- The bootstrap pair: its fingerprint is the tool's, its key unencrypted.
assert(cred.GetVendorPemHeader() == "Q7 PARAMETERS")
local bootstrap = dir .. "/bootstrap.pem"
assert(cred.WriteBootstrapCredentials(bootstrap) and read(bootstrap) == cred.GetBootstrapCredentials())
local pipe = io.popen("openssl x509 -noout -fingerprint -sha1 -in " .. bootstrap)
assert(pipe:read("*a"):match("=(.-)\n") == cred.GetBootstrapFingerprint())
pipe:close()
local key, encrypted, decryptFlag = cred.GetPrivateKey(cred.GetBootstrapCredentials())
assert(key and encrypted == false and decryptFlag == false)
fails("PEM%-encoded private key expected", cred.GetPrivateKey, true)
assert(select("#", cred.GetPrivateKey("no key here")) == 1)

-- Activated credentials: 0600, and the key comes back encrypted.
local cert = assert(ssl.Cert.DecodeString(cred.GetBootstrapCredentials()))
local activated = dir .. "/agent.pem"
assert(cred.EncryptPrivateKey(activated, key, cert))
assert(io.popen("stat -c %a " .. activated):read("*l") == "600")
local again, wasEncrypted, partly = cred.GetPrivateKey(read(activated))
assert(again and wasEncrypted == true and partly == false)
assert(read(activated):find("-----BEGIN Q7 PARAMETERS-----", 1, true))
assert(not cred.EncryptPrivateKey(activated, nil, cert) and read(activated):find("Q7", 1, true))

-- A context takes them as its own credentials.
local context = assert(ssl.Context.New(ssl.TLSv1_client_method()))
assert(context:UseCredentials(activated, "") == 0)
context:Delete()
ssl.EvpPkey.New(again):Delete()
ssl.EvpPkey.New(key):Delete()
cert:Delete()
os.execute("rm -rf " .. dir)
print("cred_test passed")
