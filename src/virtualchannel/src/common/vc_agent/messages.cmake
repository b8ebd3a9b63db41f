# norvo_messages
